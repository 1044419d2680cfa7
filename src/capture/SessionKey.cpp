#include "capture/Sample.h"
#include "capture/SessionRow.h"

namespace corvi {

QString sessionKey(const QString& bundleID, ActivityState state, const QString& windowTitle) {
    return bundleID + u'|' + rawValue(state) + u'|' + windowTitle;
}

QString Sample::key() const {
    return sessionKey(bundleID, state, windowTitle);
}

QString SessionRow::key() const {
    return sessionKey(bundleID, state, windowTitle);
}

}  // namespace corvi
