#pragma once

#include <QByteArray>
#include <QString>

namespace corvi {

// Decodes COMPOUND_TEXT titles with Xlib, the one decoder that knows all its charsets. Xlib
// needs a Display for that, so this opens a private one on the given display, and makes sure
// an I/O error on it can never end the process.
class CompoundTextDecoder {
  public:
    explicit CompoundTextDecoder(const QByteArray& displayName);
    ~CompoundTextDecoder();
    CompoundTextDecoder(const CompoundTextDecoder&) = delete;
    CompoundTextDecoder& operator=(const CompoundTextDecoder&) = delete;

    // UTF-8 text of the property bytes; empty when undecodable or the display is gone.
    QString decode(const QByteArray& bytes);

  private:
    void* display_ = nullptr;  // Display*, kept out of this header
    bool broken_ = false;
};

}  // namespace corvi
