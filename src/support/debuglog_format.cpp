// The formatter behind every log call.
//
// The log's format strings come from a platform whose printf reads %S as a wide string and knows
// the %I64 size prefix, so this formatter parses each conversion itself: wide strings (UTF-16) are
// turned into UTF-8, %I64 is taken as a 64-bit integer, %p prints the pointer as that platform
// does (upper-case hex, full width, no "0x"), and the remaining conversions are handed one at a
// time to the C library's snprintf with the argument already fetched at its true type.
// Output never exceeds size-1 characters plus the terminator.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "platform/wstr.h"
#include "support/debuglog.h"

namespace {

// Bounded output: keeps what fits, forgets the rest.
class Sink {
public:
    Sink(char* buf, size_t size) : buf_(buf), size_(size) {}

    void Put(const char* s, size_t n) {
        if (size_ == 0) return;
        size_t room = size_ - 1 - len_;
        if (n > room) n = room;
        if (n) {
            std::memcpy(buf_ + len_, s, n);
            len_ += n;
        }
    }
    void PutChars(char c, size_t n) {
        if (size_ == 0) return;
        size_t room = size_ - 1 - len_;
        if (n > room) n = room;
        if (n) {
            std::memset(buf_ + len_, c, n);
            len_ += n;
        }
    }
    bool Full() const { return size_ == 0 || len_ + 1 >= size_; }
    int Finish() {
        if (size_ == 0) return 0;
        buf_[len_] = '\0';
        return static_cast<int>(len_);
    }

private:
    char* buf_;
    size_t size_;
    size_t len_ = 0;
};

enum class Length { None, hh, h, l, ll, z, j, t, L, I32, I64, Isize };

struct Conversion {
    bool left = false;     // '-'
    bool plus = false;     // '+'
    bool space = false;    // ' '
    bool alt = false;      // '#'
    bool zero = false;     // '0'
    int width = -1;        // -1: none
    int precision = -1;    // -1: none
    Length length = Length::None;
    char conv = 0;
};

// Pads `s` to the field width, to the side the flags ask for.
void PutPadded(Sink* out, const Conversion& cs, const char* s, size_t n) {
    size_t width = cs.width > 0 ? static_cast<size_t>(cs.width) : 0;
    size_t pad = width > n ? width - n : 0;
    if (!cs.left) out->PutChars(' ', pad);
    out->Put(s, n);
    if (cs.left) out->PutChars(' ', pad);
}

// The first `limit` code units of s (or all, limit < 0) without splitting a surrogate pair.
std::string WideArg(const WCHAR* s, int limit) {
    size_t n = 0;
    while (s[n] && (limit < 0 || n < static_cast<size_t>(limit))) ++n;
    if (limit >= 0 && n == static_cast<size_t>(limit) && n > 0 && s[n] != 0 && s[n - 1] >= 0xD800 &&
        s[n - 1] <= 0xDBFF)
        --n;
    return WideToUtf8(std::u16string(s, n));
}

// Builds "%<flags><width>.<precision><lengthText><conv>" for snprintf.
std::string SubFormat(const Conversion& cs, const char* lengthText, char conv) {
    std::string f = "%";
    if (cs.left) f += '-';
    if (cs.plus) f += '+';
    if (cs.space) f += ' ';
    if (cs.alt) f += '#';
    if (cs.zero) f += '0';
    if (cs.width >= 0) f += std::to_string(cs.width);
    if (cs.precision >= 0) {
        f += '.';
        f += std::to_string(cs.precision);
    }
    f += lengthText;
    f += conv;
    return f;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
template <typename T>
void PutLibc(Sink* out, const std::string& fmt, T value) {
    char small[256];
    int need = std::snprintf(small, sizeof small, fmt.c_str(), value);
    if (need < 0) return;
    if (static_cast<size_t>(need) < sizeof small) {
        out->Put(small, static_cast<size_t>(need));
        return;
    }
    std::vector<char> big(static_cast<size_t>(need) + 1);
    std::snprintf(big.data(), big.size(), fmt.c_str(), value);
    out->Put(big.data(), static_cast<size_t>(need));
}
#pragma GCC diagnostic pop

void PutSigned(Sink* out, const Conversion& cs, va_list* ap) {
    long long v;
    switch (cs.length) {
    case Length::hh: v = static_cast<signed char>(va_arg(*ap, int)); break;
    case Length::h: v = static_cast<short>(va_arg(*ap, int)); break;
    case Length::l: v = va_arg(*ap, long); break;
    case Length::ll:
    case Length::I64: v = va_arg(*ap, long long); break;
    case Length::z:
    case Length::Isize: v = static_cast<long long>(va_arg(*ap, ptrdiff_t)); break;
    case Length::j: v = static_cast<long long>(va_arg(*ap, intmax_t)); break;
    case Length::t: v = static_cast<long long>(va_arg(*ap, ptrdiff_t)); break;
    default: v = va_arg(*ap, int); break;
    }
    PutLibc(out, SubFormat(cs, "ll", 'd'), v);
}

void PutUnsigned(Sink* out, const Conversion& cs, va_list* ap) {
    unsigned long long v;
    switch (cs.length) {
    case Length::hh: v = static_cast<unsigned char>(va_arg(*ap, unsigned)); break;
    case Length::h: v = static_cast<unsigned short>(va_arg(*ap, unsigned)); break;
    case Length::l: v = va_arg(*ap, unsigned long); break;
    case Length::ll:
    case Length::I64: v = va_arg(*ap, unsigned long long); break;
    case Length::z:
    case Length::Isize: v = va_arg(*ap, size_t); break;
    case Length::j: v = static_cast<unsigned long long>(va_arg(*ap, uintmax_t)); break;
    case Length::t: v = static_cast<unsigned long long>(va_arg(*ap, ptrdiff_t)); break;
    default: v = va_arg(*ap, unsigned); break;
    }
    PutLibc(out, SubFormat(cs, "ll", cs.conv), v);
}

void PutFloat(Sink* out, const Conversion& cs, va_list* ap) {
    if (cs.length == Length::L) {
        long double v = va_arg(*ap, long double);
        PutLibc(out, SubFormat(cs, "L", cs.conv), v);
    } else {
        double v = va_arg(*ap, double);
        PutLibc(out, SubFormat(cs, "", cs.conv), v);
    }
}

void PutNarrowString(Sink* out, const Conversion& cs, const char* s) {
    if (!s) s = "(null)";
    size_t n = 0;
    while (s[n] && (cs.precision < 0 || n < static_cast<size_t>(cs.precision))) ++n;
    PutPadded(out, cs, s, n);
}

void PutWideString(Sink* out, const Conversion& cs, const WCHAR* s) {
    if (!s) {
        PutNarrowString(out, cs, nullptr);
        return;
    }
    std::string text = WideArg(s, cs.precision);
    PutPadded(out, cs, text.data(), text.size());
}

void PutWideChar(Sink* out, const Conversion& cs, unsigned c) {
    WCHAR w[2] = {static_cast<WCHAR>(c), 0};
    // A lone NUL still occupies its column, as %c does.
    std::string text = w[0] ? WideToUtf8(std::u16string(w, 1)) : std::string(1, '\0');
    PutPadded(out, cs, text.data(), text.size());
}

void PutPointer(Sink* out, const Conversion& cs, const void* p) {
    char text[2 * sizeof(void*) + 1];
    std::snprintf(text, sizeof text, "%0*llX", static_cast<int>(2 * sizeof(void*)),
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p)));
    PutPadded(out, cs, text, std::strlen(text));
}

// Widths and precisions above this are clamped: no log line needs them, and the scratch buffer
// of one conversion stays small.
constexpr int kMaxField = 1 << 20;

// Reads a decimal number at *f, clamped so that a silly width cannot overflow.
int ReadNumber(const char** f) {
    long v = 0;
    while (**f >= '0' && **f <= '9') {
        v = v * 10 + (**f - '0');
        if (v > kMaxField) v = kMaxField;
        ++*f;
    }
    return static_cast<int>(v);
}

}  // namespace

int TrovVFormat(char* buf, size_t size, const char* format, va_list apIn) {
    Sink out(buf, size);
    if (!format) return out.Finish();
    va_list ap;
    va_copy(ap, apIn);
    const char* f = format;
    // A log call never throws, so that destructors and unwinding code may log: out of memory, the
    // text ends where the conversion that needed it stood.
    try {
    while (*f) {
        if (*f != '%') {
            const char* start = f;
            while (*f && *f != '%') ++f;
            out.Put(start, static_cast<size_t>(f - start));
            continue;
        }
        const char* convStart = f;
        ++f;
        if (*f == '%') {
            out.Put("%", 1);
            ++f;
            continue;
        }
        Conversion cs;
        for (;; ++f) {
            if (*f == '-') cs.left = true;
            else if (*f == '+') cs.plus = true;
            else if (*f == ' ') cs.space = true;
            else if (*f == '#') cs.alt = true;
            else if (*f == '0') cs.zero = true;
            else break;
        }
        if (*f == '*') {
            int w = va_arg(ap, int);
            if (w < 0) {
                cs.left = true;
                w = w < -kMaxField ? kMaxField : -w;
            }
            cs.width = w > kMaxField ? kMaxField : w;
            ++f;
        } else if (*f >= '0' && *f <= '9') {
            cs.width = ReadNumber(&f);
        }
        if (*f == '.') {
            ++f;
            if (*f == '*') {
                int p = va_arg(ap, int);
                cs.precision = p < 0 ? -1 : (p > kMaxField ? kMaxField : p);
                ++f;
            } else {
                cs.precision = ReadNumber(&f);
            }
        }
        if (f[0] == 'h' && f[1] == 'h') cs.length = Length::hh, f += 2;
        else if (f[0] == 'h') cs.length = Length::h, f += 1;
        else if (f[0] == 'l' && f[1] == 'l') cs.length = Length::ll, f += 2;
        else if (f[0] == 'l') cs.length = Length::l, f += 1;
        else if (f[0] == 'q') cs.length = Length::ll, f += 1;
        else if (f[0] == 'z') cs.length = Length::z, f += 1;
        else if (f[0] == 'j') cs.length = Length::j, f += 1;
        else if (f[0] == 't') cs.length = Length::t, f += 1;
        else if (f[0] == 'L') cs.length = Length::L, f += 1;
        else if (f[0] == 'I' && f[1] == '6' && f[2] == '4') cs.length = Length::I64, f += 3;
        else if (f[0] == 'I' && f[1] == '3' && f[2] == '2') cs.length = Length::I32, f += 3;
        else if (f[0] == 'I') cs.length = Length::Isize, f += 1;
        else if (f[0] == 'w') cs.length = Length::l, f += 1;  // %ws, %wc: wide

        cs.conv = *f;
        if (!*f) {
            // A format that ends inside a conversion: show what stood there.
            out.Put(convStart, static_cast<size_t>(f - convStart));
            break;
        }
        ++f;
        switch (cs.conv) {
        case 'd':
        case 'i':
            PutSigned(&out, cs, &ap);
            break;
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            PutUnsigned(&out, cs, &ap);
            break;
        case 'e':
        case 'E':
        case 'f':
        case 'F':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            PutFloat(&out, cs, &ap);
            break;
        case 'c':
            if (cs.length == Length::l) {
                PutWideChar(&out, cs, va_arg(ap, unsigned));
            } else {
                char c = static_cast<char>(va_arg(ap, int));
                PutPadded(&out, cs, &c, 1);
            }
            break;
        case 'C':
            PutWideChar(&out, cs, va_arg(ap, unsigned));
            break;
        case 's':
            if (cs.length == Length::l) PutWideString(&out, cs, va_arg(ap, const WCHAR*));
            else PutNarrowString(&out, cs, va_arg(ap, const char*));
            break;
        case 'S':
            // %hS names a narrow string on the original platform; plain %S a wide one.
            if (cs.length == Length::h) PutNarrowString(&out, cs, va_arg(ap, const char*));
            else PutWideString(&out, cs, va_arg(ap, const WCHAR*));
            break;
        case 'p':
            PutPointer(&out, cs, va_arg(ap, const void*));
            break;
        case 'n':
            // Writing through a pointer taken from a log argument helps nobody: consumed, ignored.
            (void)va_arg(ap, void*);
            break;
        default:
            // Unknown conversion: printed as it stands, no argument consumed.
            out.Put(convStart, static_cast<size_t>(f - convStart));
            break;
        }
        if (out.Full()) break;
    }
    } catch (const std::bad_alloc&) {
    }
    va_end(ap);
    return out.Finish();
}

int TrovFormat(char* buf, size_t size, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    int n = TrovVFormat(buf, size, format, ap);
    va_end(ap);
    return n;
}

std::string TrovFormatString(const char* format, ...) {
    // Measure with a generous buffer first; log lines are short, so one pass nearly always does.
    va_list ap;
    va_start(ap, format);
    va_list again;
    va_copy(again, ap);
    std::vector<char> buf(4096);
    int n = TrovVFormat(buf.data(), buf.size(), format, ap);
    va_end(ap);
    size_t cap = buf.size();
    while (static_cast<size_t>(n) + 1 >= cap && cap < (size_t{1} << 26)) {
        cap *= 4;
        buf.assign(cap, 0);
        va_list once;
        va_copy(once, again);
        n = TrovVFormat(buf.data(), buf.size(), format, once);
        va_end(once);
    }
    va_end(again);
    return std::string(buf.data(), static_cast<size_t>(n));
}
