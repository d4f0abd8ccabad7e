#include "platform/terminal_text.h"

#include <cstdio>

namespace {

// The length of the valid UTF-8 sequence at `i`, or 0 where the byte starts none.
size_t Utf8Length(const std::string& s, size_t i) {
    const unsigned char c = s[i];
    unsigned char lo = 0x80, hi = 0xbf;
    size_t len = 0;
    if (c < 0x80) {
        return 1;
    } else if (c >= 0xc2 && c <= 0xdf) {
        len = 2;
    } else if (c >= 0xe0 && c <= 0xef) {
        len = 3;
        lo = c == 0xe0 ? 0xa0 : lo;
        hi = c == 0xed ? 0x9f : hi;
    } else if (c >= 0xf0 && c <= 0xf4) {
        len = 4;
        lo = c == 0xf0 ? 0x90 : lo;
        hi = c == 0xf4 ? 0x8f : hi;
    } else {
        return 0;
    }
    if (i + len > s.size()) {
        return 0;
    }
    for (size_t k = 1; k < len; ++k) {
        const unsigned char b = s[i + k];
        if (b < (k == 1 ? lo : 0x80) || b > (k == 1 ? hi : 0xbf)) {
            return 0;
        }
    }
    return len;
}

}  // namespace

// Text from packages and servers must not steer the terminal: control characters (C0 but tab
// and newline, DEL, C1 whether in UTF-8 or as a stray byte) are shown as escapes instead.
std::string ZARNTerminalText(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    char buf[8];
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = text[i];
        const size_t len = Utf8Length(text, i);
        if (len == 2 && c == 0xc2 && static_cast<unsigned char>(text[i + 1]) < 0xa0) {
            std::snprintf(buf, sizeof(buf), "\\u%04x", static_cast<unsigned char>(text[i + 1]));
            out += buf;
        } else if ((c < 0x20 && c != '\t' && c != '\n') || c == 0x7f || (len == 0 && c < 0xa0)) {
            std::snprintf(buf, sizeof(buf), "\\x%02x", c);
            out += buf;
        } else {
            out.append(text, i, len == 0 ? 1 : len);
        }
        i += len == 0 ? 1 : len;
    }
    return out;
}
