#include "support/RecordingLog.h"
