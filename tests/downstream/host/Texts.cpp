// string_util, StringHandler and StringParser of the miniature recorder.
#include <string.h>

#include <string>
#include <vector>

#include "host/StringHandler.h"
#include "host/StringParser.h"
#include "host/string_util.h"

namespace string_util {

// "h\xc3\xa9" gives L"h\u00e9"; a byte that cannot start or continue a
// sequence gives U+FFFD.
std::wstring utf82wchar(const char* utf8) {
    std::wstring out;
    if (utf8 == NULL) return out;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(utf8);
    while (*p != 0) {
        unsigned long code;
        int more;
        if (*p < 0x80) {
            code = *p;
            more = 0;
        } else if ((*p & 0xE0) == 0xC0) {
            code = *p & 0x1F;
            more = 1;
        } else if ((*p & 0xF0) == 0xE0) {
            code = *p & 0x0F;
            more = 2;
        } else if ((*p & 0xF8) == 0xF0) {
            code = *p & 0x07;
            more = 3;
        } else {
            out += static_cast<wchar_t>(0xFFFD);
            ++p;
            continue;
        }
        ++p;
        bool whole = true;
        for (int i = 0; i < more; ++i) {
            if ((*p & 0xC0) != 0x80) {
                whole = false;
                break;
            }
            code = (code << 6) | (*p & 0x3F);
            ++p;
        }
        out += whole ? static_cast<wchar_t>(code) : static_cast<wchar_t>(0xFFFD);
    }
    return out;
}

std::string wchar2utf8(const wchar_t* wide) {
    std::string out;
    if (wide == NULL) return out;
    for (; *wide != 0; ++wide) {
        const unsigned long c = static_cast<unsigned long>(*wide);
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

}  // namespace string_util

// split("a\r\nb\r\n", parts, "\r\n") appends "a", "b", "".
void StringHandler::split(const std::string& text, std::vector<std::string>& parts,
                          const std::string& separator) {
    if (separator.empty()) {
        parts.push_back(text);
        return;
    }
    std::string::size_type from = 0;
    for (;;) {
        const std::string::size_type at = text.find(separator, from);
        if (at == std::string::npos) break;
        parts.push_back(text.substr(from, at - from));
        from = at + separator.size();
    }
    parts.push_back(text.substr(from));
}

StringParser::StringParser() {}

StringParser::~StringParser() {}

// Split("-rw-r--r--  1 rec rec 5 Nov 24 10:30 a.dat", " ") gives 9 words.
int StringParser::Split(char* text, char* separator) {
    buffer_.clear();
    starts_.clear();
    lengths_.clear();
    if (text == NULL) return 0;
    buffer_ = text;
    const std::string cut = (separator != NULL && separator[0] != '\0') ? separator : " ";
    std::string::size_type at = 0;
    while (at < buffer_.size()) {
        if (buffer_.compare(at, cut.size(), cut) == 0) {
            at += cut.size();
            continue;
        }
        std::string::size_type end = buffer_.find(cut, at);
        if (end == std::string::npos) end = buffer_.size();
        starts_.push_back(static_cast<unsigned int>(at));
        lengths_.push_back(static_cast<unsigned int>(end - at));
        at = end;
    }
    return static_cast<int>(starts_.size());
}

unsigned int StringParser::Getcount() { return static_cast<unsigned int>(starts_.size()); }

std::string StringParser::getItem(unsigned int index) {
    if (index >= starts_.size()) return std::string();
    return buffer_.substr(starts_[index], lengths_[index]);
}
