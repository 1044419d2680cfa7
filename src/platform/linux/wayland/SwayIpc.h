#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>
#include <cstdint>

namespace corvi {

// sway's own IPC socket ($SWAYSOCK): the one place a wlroots desktop tells which process owns
// the focused window. One GET_TREE exchange, bounded by kTimeout, on a connection of its own.
class SwayIpc {
  public:
    static constexpr std::chrono::milliseconds kTimeout{250};
    // Larger answers are refused rather than read.
    static constexpr std::uint32_t kMaxReply = 16u << 20;

    explicit SwayIpc(QByteArray socketPath) : path_(std::move(socketPath)) {}

    // The pid of sway's focused window when that window has this title (and, where sway knows
    // one, this app ID); 0 when it does not, or sway does not answer.
    std::int32_t focusedPid(const QString& appId, const QString& title) const;

  private:
    QByteArray tree() const;

    QByteArray path_;
};

}  // namespace corvi
