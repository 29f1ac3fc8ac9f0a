// Text helpers of the host: UTF-8 conversion and the two splitters.
#include <cstring>
#include <string>
#include <vector>

#include "host/GlobalEnv.h"
#include "host/StringHandler.h"
#include "host/StringParser.h"
#include "host/string_util.h"

namespace string_util {

std::wstring utf82wchar(const char* utf8) {
    std::wstring out;
    if (utf8 == nullptr) return out;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(utf8);
    while (*p != 0) {
#ifdef FTPDISK_PLANTED_FAULT_UTF8_READ_AS_LATIN1
        out.push_back(static_cast<wchar_t>(*p++));
        continue;
#endif
        unsigned int c = *p;
        int extra;
        unsigned int code;
        if (c < 0x80) {
            code = c;
            extra = 0;
        } else if ((c & 0xE0) == 0xC0) {
            code = c & 0x1F;
            extra = 1;
        } else if ((c & 0xF0) == 0xE0) {
            code = c & 0x0F;
            extra = 2;
        } else if ((c & 0xF8) == 0xF0) {
            code = c & 0x07;
            extra = 3;
        } else {
            out.push_back(static_cast<wchar_t>(0xFFFD));
            ++p;
            continue;
        }
        ++p;
        bool ok = true;
        for (int i = 0; i < extra; ++i) {
            if ((*p & 0xC0) != 0x80) {
                ok = false;
                break;
            }
            code = (code << 6) | (*p & 0x3F);
            ++p;
        }
        static const unsigned int minimum[4] = {0, 0x80, 0x800, 0x10000};
        if (!ok || code < minimum[extra] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
            code = 0xFFFD;
        }
        out.push_back(static_cast<wchar_t>(code));
    }
    return out;
}

std::string wchar2utf8(const wchar_t* wide) {
    std::string out;
    if (wide == nullptr) return out;
    for (; *wide != 0; ++wide) {
        // wchar_t is an int, not a char: a negative one becomes a code above
        // 0x10FFFF and so U+FFFD, which is what is wanted.
        // NOLINTNEXTLINE(bugprone-signed-char-misuse)
        unsigned long code = static_cast<unsigned long>(*wide);
        if (code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) code = 0xFFFD;
        if (code < 0x80) {
            out.push_back(static_cast<char>(code));
        } else if (code < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (code >> 6)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else if (code < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (code >> 12)));
            out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (code >> 18)));
            out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        }
    }
    return out;
}

}  // namespace string_util

StringParser::StringParser() {}
StringParser::~StringParser() {}

// A writable separator: the host contract's signature.
int StringParser::Split(char* text, char* separator) {  // NOLINT(readability-non-const-parameter)
    starts_.clear();
    lengths_.clear();
    if (text == nullptr) {
        buffer_.clear();
        return 0;
    }
    // The words are kept in a copy, so this host never writes to the text.
    buffer_.assign(text);
    const std::size_t length = buffer_.size();
    const char* sep = (separator != nullptr && *separator != 0) ? separator : " ";
    const std::size_t sepLength = std::strlen(sep);
    const char* data = buffer_.data();
    std::size_t pos = 0;
    std::size_t wordStart = 0;
    if (sepLength == 1) {
        const char s = sep[0];
        for (; pos < length; ++pos) {
            bool cut = data[pos] == s;
#ifdef FTPDISK_PLANTED_FAULT_TABS_SPLIT_WORDS
            cut = cut || (s == ' ' && data[pos] == '\t');
#endif
            if (cut) {
                if (pos > wordStart) {
                    starts_.push_back(static_cast<unsigned int>(wordStart));
                    lengths_.push_back(static_cast<unsigned int>(pos - wordStart));
                }
                wordStart = pos + 1;
            }
        }
    } else {
        while (pos < length) {
            if (pos + sepLength <= length && std::memcmp(data + pos, sep, sepLength) == 0) {
                if (pos > wordStart) {
                    starts_.push_back(static_cast<unsigned int>(wordStart));
                    lengths_.push_back(static_cast<unsigned int>(pos - wordStart));
                }
                pos += sepLength;
                wordStart = pos;
            } else {
                ++pos;
            }
        }
    }
    if (length > wordStart) {
        starts_.push_back(static_cast<unsigned int>(wordStart));
        lengths_.push_back(static_cast<unsigned int>(length - wordStart));
    }
    return static_cast<int>(starts_.size());
}

unsigned int StringParser::Getcount() { return static_cast<unsigned int>(starts_.size()); }

std::string StringParser::getItem(unsigned int index) {
    if (index >= starts_.size()) return std::string();
    return buffer_.substr(starts_[index], lengths_[index]);
}

void StringHandler::split(const std::string& text, std::vector<std::string>& parts,
                          const std::string& separator) {
    if (separator.empty()) {
        parts.push_back(text);
        return;
    }
    std::string::size_type begin = 0;
    for (;;) {
        std::string::size_type found = text.find(separator, begin);
        if (found == std::string::npos) {
#ifdef FTPDISK_PLANTED_FAULT_EMPTY_PARTS_DROPPED
            if (begin == text.size()) return;
#endif
            parts.push_back(text.substr(begin));
            return;
        }
#ifdef FTPDISK_PLANTED_FAULT_EMPTY_PARTS_DROPPED
        if (found == begin) {
            begin = found + separator.size();
            continue;
        }
#endif
        parts.push_back(text.substr(begin, found - begin));
        begin = found + separator.size();
    }
}

GlobalEnv::GlobalEnv() : printFlag_(false) {}

GlobalEnv* GlobalEnv::getInstance() {
    static GlobalEnv* instance = new GlobalEnv;
    return instance;
}

bool GlobalEnv::getPrintFlag() { return printFlag_.load(); }
void GlobalEnv::setPrintFlag(bool on) { printFlag_.store(on); }
