// Text scanning: the parts that need no inlining (files, the C fallback for numbers,
// the cursor's less frequent members).
#include "util/text_scan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace polybus {
namespace text {

double to_double_c(std::string_view s, size_t* used) {
    const std::string copy(s);
    char* stop = nullptr;
    const double v = std::strtod(copy.c_str(), &stop);
    if (used != nullptr) *used = static_cast<size_t>(stop - copy.c_str());
    return v;
}

namespace {

int open_regular(const std::string& path, struct stat& st) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

bool is_readable_file(const std::string& path) {
    struct stat st;
    const int fd = open_regular(path, st);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

bool read_file(const std::string& path, FileText& text) {
    text.size = 0;
    struct stat st;
    const int fd = open_regular(path, st);
    if (fd < 0) {
        if (text.buf) std::memset(text.buf.get(), 0, kPad);
        return false;
    }
    const size_t want = static_cast<size_t>(st.st_size) + 1;
    if (text.cap < want) {
        text.buf.reset(new char[want + kPad]);
        text.cap = want;
    }
    for (;;) {
        if (text.size == text.cap) {  // the file grew while being read
            std::unique_ptr<char[]> bigger(new char[text.cap * 2 + kPad]);
            std::memcpy(bigger.get(), text.buf.get(), text.size);
            text.buf = std::move(bigger);
            text.cap *= 2;
        }
        const ssize_t got = ::read(fd, text.buf.get() + text.size, text.cap - text.size);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        text.size += static_cast<size_t>(got);
    }
    ::close(fd);
    std::memset(text.buf.get() + text.size, 0, kPad);
    return true;
}

std::unique_ptr<char[]> pad_copy(std::string_view text, std::string_view& view) {
    std::unique_ptr<char[]> copy(new char[text.size() + kPad]());
    if (!text.empty()) std::memcpy(copy.get(), text.data(), text.size());
    view = std::string_view(copy.get(), text.size());
    return copy;
}

size_t Cursor::line() const {
    size_t n = 1;
    for (const char* q = begin_; q < p_; ++q) n += *q == '\n';
    return n;
}

void Cursor::skip_space_and_comments() {
    for (;;) {
        skip_space();
        if (end_ - p_ < 2 || p_[0] != '/') return;
        if (p_[1] == '/') {
            const void* lf = std::memchr(p_, '\n', static_cast<size_t>(end_ - p_));
            p_ = lf != nullptr ? static_cast<const char*>(lf) + 1 : end_;
        } else if (p_[1] == '*') {
            const std::string_view after(p_ + 2, static_cast<size_t>(end_ - p_ - 2));
            const size_t close = after.find("*/");
            p_ = close == std::string_view::npos ? end_ : after.data() + close + 2;
        } else {
            return;
        }
    }
}

bool Cursor::keyword(std::string_view word) {
    const char* save = p_;
    skip_space();
    if (static_cast<size_t>(end_ - p_) >= word.size() && std::memcmp(p_, word.data(), word.size()) == 0 &&
        (p_ + word.size() == end_ || !is_ident_char(p_[word.size()]))) {
        p_ += word.size();
        return true;
    }
    p_ = save;
    return false;
}

bool Cursor::identifier(std::string_view& out) {
    const char* save = p_;
    skip_space();
    if (p_ >= end_ || !is_ident_start(*p_)) {
        p_ = save;
        return false;
    }
    const char* start = p_;
    while (p_ < end_ && is_ident_char(*p_)) ++p_;
    out = std::string_view(start, static_cast<size_t>(p_ - start));
    return true;
}

bool Cursor::quoted(std::string_view& out) {
    const char* save = p_;
    skip_space();
    if (p_ >= end_ || *p_ != '"') {
        p_ = save;
        return false;
    }
    const void* close = std::memchr(p_ + 1, '"', static_cast<size_t>(end_ - p_ - 1));
    if (close == nullptr) {
        p_ = save;
        return false;
    }
    out = std::string_view(p_ + 1, static_cast<size_t>(static_cast<const char*>(close) - p_ - 1));
    p_ = static_cast<const char*>(close) + 1;
    return true;
}

std::string_view Cursor::integer_text() {
    const char* save = p_;
    skip_space();
    const std::string_view r = rest();
    const IntText t = scan_integer(r, 0);
    if (t.used == 0) {
        p_ = save;
        return std::string_view();
    }
    p_ += t.used;
    return r.substr(0, t.used);
}

bool Cursor::integer(int64_t& out) {
    const std::string_view text = integer_text();
    if (text.empty()) return false;
    out = to_signed(text, 0);
    return true;
}

bool Cursor::unsigned_integer(uint64_t& out) {
    const std::string_view text = integer_text();
    if (text.empty()) return false;
    out = to_unsigned(text, 0);
    return true;
}

bool Cursor::number(double& out) {
    const char* save = p_;
    skip_space();
    size_t used = 0;
    const double v = to_double(rest(), &used);
    if (used == 0) {
        p_ = save;
        return false;
    }
    out = v;
    p_ += used;
    return true;
}

}  // namespace text
}  // namespace polybus
