// Helpers shared by the DBC tests: temporary files, a stand-in open adapter, short
// forms of the exported calls and the corpus location.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

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
        if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
        ::close(fd);
        path_ = name;
    }
    ~TempFile() { ::unlink(path_.c_str()); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
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

inline std::string corpus_file(const char* name) { return std::string(POLYBUS_CORPUS_DIR) + "/dbc/" + name; }

inline bool file_exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// Parses text through a real file, as DBC_ParserFile does.
inline std::unique_ptr<DBC_Decoder> parse(const std::string& text) {
    TempFile f(text);
    return std::make_unique<DBC_Decoder>(f.c_str(), "GBK");
}

inline DBC_Decoder& db_of(uint64_t h) { return *reinterpret_cast<DBC_Decoder*>(static_cast<uintptr_t>(h)); }

inline DBC_MESSAGE* message(DBC_Decoder& db, const char* name) {
    DBC_MESSAGE* m = nullptr;
    return db.getMessage(name, &m) ? m : nullptr;
}

inline DBC_SIGNAL* signal(DBC_Decoder& db, const char* msg, const char* sig) {
    DBC_SIGNAL* s = nullptr;
    return db.getSignal(msg, sig, &s) ? s : nullptr;
}

// The exported calls that a test expects to succeed, in one line each.
inline double value(uint64_t h, const char* msg, const char* sig) {
    double v = -12345.5;
    EXPECT_EQ(DBC_GetSignalValue(h, msg, sig, &v), 0) << msg << "." << sig;
    return v;
}

inline std::string text(uint64_t h, const char* msg, const char* sig) {
    char t[DBC_MAX_VALUE_TEXT_LEN + 1] = "";
    EXPECT_EQ(DBC_GetSignalValueStr(h, msg, sig, t), 0) << msg << "." << sig;
    return t;
}

inline CAN_MSG build(uint64_t h, const char* msg) {
    CAN_MSG can{};
    EXPECT_EQ(DBC_SyncValueToCANMsg(h, msg, &can), 0) << msg;
    return can;
}

inline CANFD_MSG build_fd(uint64_t h, const char* msg) {
    CANFD_MSG fd{};
    EXPECT_EQ(DBC_SyncValueToCANFDMsg(h, msg, &fd), 0) << msg;
    return fd;
}

// Decodes one classic frame with these identifier, flag and first data bytes.
inline void decode(uint64_t h, uint32_t id, uint8_t ext, std::initializer_list<uint8_t> bytes) {
    CAN_MSG can{};
    can.ID = id;
    can.ExternFlag = ext;
    std::copy(bytes.begin(), bytes.end(), can.Data);
    EXPECT_EQ(DBC_SyncCANMsgToValue(h, &can, 1), 0) << id;
}

inline std::vector<uint8_t> data(const CAN_MSG& can) { return std::vector<uint8_t>(can.Data, can.Data + 8); }

}  // namespace dbc_test
