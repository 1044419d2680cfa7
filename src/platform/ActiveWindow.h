#pragma once

#include <QString>
#include <cstdint>
#include <memory>
#include <optional>

namespace corvi {

// The frontmost application and the raw title of its focused window. Every missing piece
// arrives as a neutral value: no application gives none, no ID "unknown", no name the ID,
// no title "".
class ActiveWindow {
  public:
    struct Info {
        QString bundleID;
        QString appName;
        std::int32_t pid = 0;
        QString windowTitle;
    };

    virtual ~ActiveWindow() = default;
    virtual std::optional<Info> current() = 0;
    virtual QString focusedWindowTitle(std::int32_t pid) = 0;
};

}  // namespace corvi
