// Helpers shared by the DBC tests: temporary files, a stand-in open adapter and
// the corpus location.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "database/dbc_decoder.h"
#include "polybus/dbc.h"
#include "transport/usb_device.h"

namespace dbc_test {

// A file holding `text`, removed again when the object goes.
class TempFile {
public:
    explicit TempFile(const std::string& text) {
        char name[] = "/tmp/polybus_dbc_XXXXXX";
        int fd = ::mkstemp(name);
        if (fd < 0) std::abort();
        size_t done = 0;
        while (done < text.size()) {
            ssize_t n = ::write(fd, text.data() + done, text.size() - done);
            if (n <= 0) std::abort();
            done += static_cast<size_t>(n);
        }
        ::close(fd);
        path_ = name;
    }
    ~TempFile() { ::unlink(path_.c_str()); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    const std::string& path() const { return path_; }
    const char* c_str() const { return path_.c_str(); }

private:
    std::string path_;
};

// A device-list entry for `handle`; `open` gives it a (never used) libusb handle.
class FakeDevice {
public:
    explicit FakeDevice(uint32_t handle, bool open = true) {
        node_ = static_cast<UsbDevNode*>(std::calloc(1, sizeof(UsbDevNode)));
        node_->DevHandle = handle;
        if (open) node_->handle = reinterpret_cast<libusb_device_handle*>(uintptr_t{1});
        usb_list_add(node_);
    }
    ~FakeDevice() { usb_list_del(node_); }
    FakeDevice(const FakeDevice&) = delete;
    FakeDevice& operator=(const FakeDevice&) = delete;
    int handle() const { return static_cast<int>(node_->DevHandle); }

private:
    UsbDevNode* node_;
};

inline std::string corpus_file(const char* name) {
    return std::string(POLYBUS_CORPUS_DIR) + "/dbc/" + name;
}

inline bool file_exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

#define DBC_REQUIRE_CORPUS(path)                                                           \
    do {                                                                                   \
        if (!dbc_test::file_exists(path)) GTEST_SKIP() << "corpus file not found: " << (path); \
    } while (0)

// Parses text through a real file, as DBC_ParserFile does.
inline std::unique_ptr<DBC_Decoder> parse(const std::string& text) {
    TempFile f(text);
    return std::make_unique<DBC_Decoder>(f.path(), "GBK");
}

inline const DBC_MESSAGE* message(DBC_Decoder& db, const char* name) {
    DBC_MESSAGE* m = nullptr;
    return db.getMessage(name, &m) ? m : nullptr;
}

inline const DBC_SIGNAL* signal(DBC_Decoder& db, const char* msg, const char* sig) {
    DBC_SIGNAL* s = nullptr;
    return db.getSignal(msg, sig, &s) ? s : nullptr;
}

}  // namespace dbc_test
