// The simulator's own reading of DBC files and of candump logs, for the CAN nodes of
// world files. It is deliberately separate from the library's DBC code: a peer that
// encodes signals with its own code cross-checks the library's decoder.
//
// DBC: BO_ (messages), SG_ (signals: Intel or Motorola bit order, factor and offset,
// signed or not, multiplexer M and multiplexed mN), the GenMsgCycleTime attribute
// (BA_ per message, BA_DEF_DEF_ default). Everything else is skipped. Identifiers with
// bit 31 set, or above 0x7FF, are 29-bit. A message longer than 8 bytes is a CAN FD
// frame.
//
// candump -l logs: "(SECONDS.MICROS) IFACE ID#DATA", "ID##F DATA" (CAN FD, F the flags
// digit: 1 bit-rate switch, 2 error state), "ID#R" or "ID#Rn" (remote, n bytes asked).
// Three hex digits: 11-bit identifier; eight: 29-bit. Error frames (bit 29 in an
// eight-digit identifier) are skipped.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "can_bus.h"

namespace polybus_sim {

struct DbcSignal {
    std::string name;
    unsigned start = 0;   // as written: Intel LSB, Motorola MSB (sawtooth numbering)
    unsigned length = 1;  // 1..64
    bool intel = true;
    bool is_signed = false;
    double factor = 1, offset = 0;
    double minimum = 0, maximum = 0;
    enum class Mux { None, Switch, Multiplexed } mux = Mux::None;
    unsigned mux_value = 0;
};

struct DbcMessage {
    std::string name;
    uint32_t id = 0;
    bool extended = false;
    unsigned length = 8;
    int cycle_ms = -1;  // -1: no GenMsgCycleTime of its own
    std::vector<DbcSignal> signals;
    const DbcSignal* signal(const std::string& name) const;
};

struct DbcFile {
    std::vector<DbcMessage> messages;
    int default_cycle_ms = 0;  // BA_DEF_DEF_ "GenMsgCycleTime"
    const DbcMessage* message(const std::string& name) const;
    int cycle_ms(const DbcMessage& m) const { return m.cycle_ms >= 0 ? m.cycle_ms : default_cycle_ms; }
};

// Reads a DBC file. On failure returns false with the line (0: the file itself) and
// what is wrong.
bool read_dbc(const std::string& path, DbcFile& out, int& error_line, std::string& error);
bool parse_dbc(const std::string& text, DbcFile& out, int& error_line, std::string& error);

// Raw value of a physical one: rounded, clamped to what the signal's bits can hold.
uint64_t dbc_raw(const DbcSignal& s, double physical);
// Writes `raw` into the frame data with the signal's bit layout.
void dbc_put(uint8_t* data, size_t size, const DbcSignal& s, uint64_t raw);
// Reads the physical value back (tests).
double dbc_get(const uint8_t* data, size_t size, const DbcSignal& s);

struct LoggedFrame {
    int64_t time_us = 0;
    std::string interface;
    BusFrame frame;
};

bool read_candump(const std::string& path, std::vector<LoggedFrame>& out, int& error_line, std::string& error);
bool parse_candump(const std::string& text, std::vector<LoggedFrame>& out, int& error_line, std::string& error);

}  // namespace polybus_sim
