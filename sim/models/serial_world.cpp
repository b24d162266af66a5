// The serial buses' share of world files:
//   [[i2c_eeprom]]          a 24C-family EEPROM on an I2C channel
//   [[smbus_device]]        an SMBus device: word and byte registers, blocks, PEC
//   [[i2c_master]]          a bus master writing to and reading from the adapter's slave mode
//   [[spi_flash]]           a serial NOR flash on an SPI port
//   [[spi_shift_register]]  a plain SPI device answering the bytes clocked in earlier
//   [[spi_master]]          a bus master streaming into the adapter's slave port
//   [[uart_peer]]           what sits on the far end of a UART port
//   [[pin_event]]           a pin that changes level on a schedule (event-triggered transfers)
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "gpio_model.h"
#include "i2c_model.h"
#include "spi_model.h"
#include "uart_model.h"
#include "world.h"

namespace polybus_sim {
namespace {

using world::Bench;
using world::Context;
using world::Kind;
using world::Piece;
using world::Table;

constexpr int kPins = 32;
// Memory images and streams are held whole in memory; these bound what a file can ask for.
constexpr int64_t kMaxFlash = 64 << 20;
constexpr size_t kMaxStream = 1 << 20;

std::string hex(int64_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(v));
    return text;
}

bool power_of_two(int64_t v) { return v > 0 && (v & (v - 1)) == 0; }

std::vector<uint8_t> hex_bytes(Table& t, const std::string& key, size_t max) {
    std::vector<uint8_t> bytes;
    const std::string text = t.string(key, "");
    if (!world::parse_hex_bytes(text, bytes)) t.fail_at(key, "'" + key + "' must be hex bytes, e.g. \"DE AD BE EF\"");
    if (bytes.size() > max)
        t.fail_at(key, "'" + key + "' holds " + std::to_string(bytes.size()) + " bytes, at most " + std::to_string(max) +
                           " fit");
    return bytes;
}

// Milliseconds as a number (0.5 allowed), checked, in microseconds.
uint64_t read_ms(Table& t, const std::string& key, double fallback, double max_ms) {
    const double ms = t.number(key, fallback);
    if (!(ms >= 0 && ms <= max_ms))
        t.fail_at(key, "'" + key + "' must be 0 to " + std::to_string(int64_t(max_ms)) + " ms");
    return uint64_t(std::llround(ms * 1000));
}

// The starting contents of a memory: `contents` (a binary file, relative to the world
// file) and then `data` (hex bytes), both placed at `offset`.
struct Image {
    uint32_t offset = 0;
    std::vector<uint8_t> file, data;
};

Image read_image(Table& t, Context& ctx, int64_t size) {
    Image image;
    image.offset = uint32_t(t.integer("offset", 0, 0, size - 1));
    if (t.has("contents")) {
        const std::string path = ctx.resolve(t.string("contents"));
        std::ifstream in(path, std::ios::binary);
        if (!in) t.fail_at("contents", "cannot read " + path);
        image.file.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        if (int64_t(image.file.size()) > size - image.offset)
            t.fail_at("contents", path + " holds " + std::to_string(image.file.size()) + " bytes; from offset " +
                                      std::to_string(image.offset) + " only " + std::to_string(size - image.offset) +
                                      " fit");
    }
    image.data = hex_bytes(t, "data", size_t(size - image.offset));
    return image;
}

// Device addresses taken on a channel, per address width, so two devices never answer
// the same transfer.
void claim_i2c(Table& t, Context& ctx, const std::string& channel, bool ten_bit, uint16_t first, uint16_t count) {
    for (uint16_t a = first; a < first + count; ++a) {
        const std::string key = channel + (ten_bit ? "/10/" : "/7/") + std::to_string(a);
        if (auto owner = ctx.find<std::string>("i2c_address", key))
            t.fail_at("address", "address " + hex(a) + " on " + channel + " is already taken by " + *owner);
        ctx.declare("i2c_address", key, std::make_shared<std::string>(t.what()));
    }
}

uint16_t read_i2c_address(Table& t, bool ten_bit, int64_t fallback) {
    return uint16_t(t.integer("address", fallback, 0, ten_bit ? 0x3FF : 0x7F));
}

template <typename Device>
class I2cDevicePiece : public Piece {
public:
    std::string adapter;
    int channel = 0;
    std::function<std::shared_ptr<Device>()> make;
    void apply(Bench& bench) override { bench.adapter(adapter)->model<I2cModel>().attach(channel, make()); }
};

std::string channel_name(const std::string& adapter, int index) { return adapter + ":" + std::to_string(index); }

// ---- [[i2c_eeprom]] ---------------------------------------------------------------------

std::unique_ptr<Piece> read_eeprom(Table& t, Context& ctx) {
    auto piece = std::make_unique<I2cDevicePiece<Eeprom>>();
    world::find_channel(t, ctx, t.required("channel"), "I2C channels", I2cModel::kChannels, piece->adapter,
                        piece->channel);
    const std::string where = channel_name(piece->adapter, piece->channel);
    EepromConfig c;
    c.ten_bit = t.boolean("ten_bit", false);
    c.address = read_i2c_address(t, c.ten_bit, 0x50);
    t.rename("i2c_eeprom at " + hex(c.address) + " on " + where);
    const int64_t size = t.integer("size", 256, 128, 65536);
    if (!power_of_two(size)) t.fail_at("size", "'size' must be a power of two (24C01: 128 ... 24C512: 65536)");
    c.size = uint32_t(size);
    const int64_t page = t.integer("page_size", 8, 1, 256);
    if (!power_of_two(page) || page > size) t.fail_at("page_size", "'page_size' must be a power of two up to 'size'");
    c.page_size = uint32_t(page);
    c.write_cycle_us = uint32_t(t.integer("write_cycle_us", 5000, 0, 1000000));
    c.fill = uint8_t(t.integer("fill", 0xFF, 0, 255));
    // Up to 2 KiB the device takes one address byte and the next size/256 - 1 device
    // addresses for the rest.
    const uint16_t blocks = size > 256 && size <= 2048 ? uint16_t(size / 256) : 1;
    if (c.address + blocks - 1 > (c.ten_bit ? 0x3FF : 0x7F))
        t.fail_at("address", "a " + std::to_string(size) + "-byte device at " + hex(c.address) + " takes " +
                                 std::to_string(blocks) + " addresses, beyond the last one");
    claim_i2c(t, ctx, where, c.ten_bit, c.address, blocks);
    const Image image = read_image(t, ctx, size);
    piece->make = [c, image] {
        auto e = std::make_shared<Eeprom>(c);
        e->load(image.offset, image.file);
        e->load(image.offset, image.data);
        return e;
    };
    return piece;
}

POLYBUS_WORLD_KIND(i2c_eeprom_kind,
                   Kind{"i2c_eeprom", world::kRankDevices,
                        "a 24C EEPROM: channel, address, ten_bit, size, page_size, write_cycle_us, fill, contents, data",
                        read_eeprom});

// ---- [[smbus_device]] -------------------------------------------------------------------

// { 0x10 = value, ... }: registers by command code (bare keys such as 0x10 are allowed).
template <typename Fn>
void read_registers(Table& t, const std::string& key, Fn each) {
    const toml::table* regs = t.table(key);  // refuses a value that is not a table
    if (regs == nullptr) return;
    for (auto&& [name, value] : *regs) {
        const std::string k(name.str());
        errno = 0;
        char* end = nullptr;
        const unsigned long cmd = std::strtoul(k.c_str(), &end, 0);
        if (k.empty() || *end != '\0' || errno != 0 || cmd > 0xFF)
            throw world::WorldError(world::location_of(name.source(), t.file()),
                                    t.what() + ": '" + k + "' in '" + key + "' is not a command code 0 to 0xFF");
        each(uint8_t(cmd), value);
    }
}

std::unique_ptr<Piece> read_smbus(Table& t, Context& ctx) {
    auto piece = std::make_unique<I2cDevicePiece<SmbusDevice>>();
    world::find_channel(t, ctx, t.required("channel"), "I2C channels", I2cModel::kChannels, piece->adapter,
                        piece->channel);
    const std::string where = channel_name(piece->adapter, piece->channel);
    SmbusDeviceConfig c;
    c.ten_bit = t.boolean("ten_bit", false);
    c.address = read_i2c_address(t, c.ten_bit, 0x16);
    t.rename("smbus_device at " + hex(c.address) + " on " + where);
    claim_i2c(t, ctx, where, c.ten_bit, c.address, 1);
    c.receive_byte = uint8_t(t.integer("receive_byte", 0x5A, 0, 255));
    c.corrupt_pec = t.boolean("corrupt_pec", false);
    read_registers(t, "words", [&](uint8_t cmd, const toml::node& v) {
        if (!v.is_integer() || v.as_integer()->get() < 0 || v.as_integer()->get() > 0xFFFF)
            t.fail_node(v, "a word register holds 0 to 0xFFFF");
        c.words[cmd] = uint16_t(v.as_integer()->get());
    });
    read_registers(t, "bytes", [&](uint8_t cmd, const toml::node& v) {
        if (!v.is_integer() || v.as_integer()->get() < 0 || v.as_integer()->get() > 0xFF)
            t.fail_node(v, "a byte register holds 0 to 0xFF");
        // A byte access reads the low byte of the register of the same command.
        if (c.words.count(cmd)) t.fail_node(v, "command " + hex(cmd) + " is set in both 'words' and 'bytes'");
        c.words[cmd] = uint16_t(v.as_integer()->get());
    });
    read_registers(t, "blocks", [&](uint8_t cmd, const toml::node& v) {
        std::vector<uint8_t> bytes;
        if (!v.is_string() || !world::parse_hex_bytes(v.as_string()->get(), bytes))
            t.fail_node(v, "a block is hex bytes, e.g. \"01 02 03\"");
        if (bytes.size() > 32) t.fail_node(v, "an SMBus block holds at most 32 bytes");
        c.blocks[cmd] = bytes;
    });
    piece->make = [c] { return std::make_shared<SmbusDevice>(c); };
    return piece;
}

POLYBUS_WORLD_KIND(smbus_device_kind,
                   Kind{"smbus_device", world::kRankDevices,
                        "an SMBus device: channel, address, ten_bit, words, bytes, blocks, receive_byte, corrupt_pec",
                        read_smbus});

// ---- [[i2c_master]] ---------------------------------------------------------------------

class I2cMasterPiece : public Piece {
public:
    std::string adapter;
    int channel = 0;
    I2cMasterConfig config;
    void start(Bench& bench) override {
        auto stop = std::make_shared<std::atomic<bool>>(false);
        bench.on_teardown([stop] { stop->store(true); });
        run_i2c_master(bench.clock(), bench.adapter(adapter), channel, config, stop);
    }
};

std::unique_ptr<Piece> read_i2c_master(Table& t, Context& ctx) {
    auto piece = std::make_unique<I2cMasterPiece>();
    world::find_channel(t, ctx, t.required("channel"), "I2C channels", I2cModel::kChannels, piece->adapter,
                        piece->channel);
    t.rename("i2c_master on " + channel_name(piece->adapter, piece->channel));
    const toml::array* steps = t.array("step");
    if (steps == nullptr || steps->empty()) t.fail("an i2c_master needs at least one [[i2c_master.step]]");
    for (const toml::node& item : *steps) {
        if (!item.is_table()) t.fail_node(item, "a step is { at_ms = ..., write = \"...\" } or { at_ms = ..., read = N }");
        Table s(*item.as_table(), t.file(), t.what() + " step");
        I2cMasterConfig::Step step;
        step.at_us = read_ms(s, "at_ms", 0, 86400000);
        step.write = hex_bytes(s, "write", 4096);
        step.read = size_t(s.integer("read", 0, 0, 65535));
        if (step.write.empty() && step.read == 0) s.fail("a step writes bytes (write = \"...\") or reads some (read = N)");
        step.period_us = read_ms(s, "period_ms", 0, 86400000);
        step.count = uint32_t(s.integer("count", step.period_us ? 0 : 1, 0, 1000000000));
        if (step.period_us == 0 && step.count != 1) s.fail_at("count", "a step that repeats needs a 'period_ms'");
        if (step.period_us != 0 && step.period_us < 100) s.fail_at("period_ms", "'period_ms' must be 0.1 or more");
        s.finish();
        piece->config.steps.push_back(std::move(step));
    }
    return piece;
}

POLYBUS_WORLD_KIND(i2c_master_kind,
                   Kind{"i2c_master", world::kRankDevices,
                        "a master talking to the adapter's slave mode: channel, [[step]] at_ms, write, read, period_ms, count",
                        read_i2c_master});

// ---- SPI ----------------------------------------------------------------------------------

void claim_port(Table& t, Context& ctx, const std::string& category, const std::string& port, const std::string& what) {
    if (auto owner = ctx.find<std::string>(category, port))
        t.fail_at("port", "SPI port " + port + " already has " + what + ": " + *owner);
    ctx.declare(category, port, std::make_shared<std::string>(t.what()));
}

class SpiDevicePiece : public Piece {
public:
    std::string adapter;
    int port = 0;
    std::function<std::shared_ptr<SpiDevice>()> make;
    void apply(Bench& bench) override { bench.adapter(adapter)->model<SpiModel>().attach(port, make()); }
};

// ---- [[spi_flash]] ------------------------------------------------------------------------

std::unique_ptr<Piece> read_flash(Table& t, Context& ctx) {
    auto piece = std::make_unique<SpiDevicePiece>();
    world::find_channel(t, ctx, t.required("port"), "SPI ports", SpiModel::kPorts, piece->adapter, piece->port);
    const std::string port = channel_name(piece->adapter, piece->port);
    t.rename("spi_flash on " + port);
    claim_port(t, ctx, "spi_device", port, "a device");
    NorFlashConfig c;
    c.jedec_id = hex_bytes(t, "jedec_id", 8);
    if (!t.has("jedec_id")) c.jedec_id = NorFlashConfig{}.jedec_id;
    else if (c.jedec_id.empty()) t.fail_at("jedec_id", "'jedec_id' needs at least one byte");
    const int64_t size = t.integer("size", 1 << 20, 4096, kMaxFlash);
    const int64_t page = t.integer("page_size", 256, 1, 65536);
    const int64_t sector = t.integer("sector_size", 4096, 1, kMaxFlash);
    const int64_t block = t.integer("block_size", 65536, 1, kMaxFlash);
    if (!power_of_two(size)) t.fail_at("size", "'size' must be a power of two");
    if (!power_of_two(page) || page > sector)
        t.fail_at("page_size", "'page_size' must be a power of two no larger than 'sector_size'");
    if (!power_of_two(sector) || sector > size)
        t.fail_at("sector_size", "'sector_size' must be a power of two no larger than 'size'");
    if (!power_of_two(block) || block < sector)
        t.fail_at("block_size", "'block_size' must be a power of two no smaller than 'sector_size'");
    c.size = uint32_t(size);
    c.page_size = uint32_t(page);
    c.sector_size = uint32_t(sector);
    c.block_size = uint32_t(block);
    c.address_bytes = unsigned(t.integer("address_bytes", size > (1 << 24) ? 4 : 3, 3, 4));
    if (c.address_bytes == 3 && size > (1 << 24))
        t.fail_at("address_bytes", "three address bytes reach 16 MiB; this flash needs four");
    c.page_program_us = uint32_t(t.integer("page_program_us", c.page_program_us, 0, 60000000));
    c.sector_erase_us = uint32_t(t.integer("sector_erase_us", c.sector_erase_us, 0, 60000000));
    c.block_erase_us = uint32_t(t.integer("block_erase_us", c.block_erase_us, 0, 60000000));
    c.chip_erase_us = uint32_t(t.integer("chip_erase_us", c.chip_erase_us, 0, 600000000));
    c.fill = uint8_t(t.integer("fill", 0xFF, 0, 255));
    const Image image = read_image(t, ctx, size);
    piece->make = [c, image] {
        auto f = std::make_shared<NorFlash>(c);
        f->load(image.offset, image.file);
        f->load(image.offset, image.data);
        return f;
    };
    return piece;
}

POLYBUS_WORLD_KIND(spi_flash_kind,
                   Kind{"spi_flash", world::kRankDevices,
                        "a serial NOR flash: port, jedec_id, size, page/sector/block_size, address_bytes, times, contents",
                        read_flash});

// ---- [[spi_shift_register]] -----------------------------------------------------------------

std::unique_ptr<Piece> read_shift_register(Table& t, Context& ctx) {
    auto piece = std::make_unique<SpiDevicePiece>();
    world::find_channel(t, ctx, t.required("port"), "SPI ports", SpiModel::kPorts, piece->adapter, piece->port);
    const std::string port = channel_name(piece->adapter, piece->port);
    t.rename("spi_shift_register on " + port);
    claim_port(t, ctx, "spi_device", port, "a device");
    ShiftRegisterConfig c;
    c.depth = size_t(t.integer("depth", 1, 1, 65536));
    c.fill = uint8_t(t.integer("fill", 0, 0, 255));
    piece->make = [c] { return std::make_shared<ShiftRegister>(c); };
    return piece;
}

POLYBUS_WORLD_KIND(spi_shift_register_kind,
                   Kind{"spi_shift_register", world::kRankDevices,
                        "a plain SPI device answering the bytes clocked in earlier: port, depth, fill",
                        read_shift_register});

// ---- [[spi_master]] ---------------------------------------------------------------------------

class SpiMasterPiece : public Piece {
public:
    std::string adapter;
    int port = 0;
    SpiMasterConfig config;
    void apply(Bench& bench) override { bench.adapter(adapter)->model<SpiModel>().attach_master(port, config); }
};

std::unique_ptr<Piece> read_spi_master(Table& t, Context& ctx) {
    auto piece = std::make_unique<SpiMasterPiece>();
    world::find_channel(t, ctx, t.required("port"), "SPI ports", SpiModel::kPorts, piece->adapter, piece->port);
    const std::string port = channel_name(piece->adapter, piece->port);
    t.rename("spi_master on " + port);
    claim_port(t, ctx, "spi_master", port, "a master");
    const double rate = t.number("bytes_per_second", 1e6);
    if (!(rate >= 1 && rate <= 100e6)) t.fail_at("bytes_per_second", "'bytes_per_second' must be 1 to 100000000");
    piece->config.bytes_per_second = rate;
    if (t.has("limit")) piece->config.limit = uint64_t(t.integer("limit", 0, 1, INT64_MAX));
    piece->config.pattern = hex_bytes(t, "pattern", 65536);
    return piece;
}

POLYBUS_WORLD_KIND(spi_master_kind,
                   Kind{"spi_master", world::kRankDevices,
                        "a master streaming into the adapter's slave port: port, bytes_per_second, limit, pattern",
                        read_spi_master});

// ---- [[uart_peer]] ------------------------------------------------------------------------------

// Bytes given as text (`key`, TOML escapes such as "\r\n" allowed) or as hex (`key_hex`).
std::vector<uint8_t> text_or_hex(Table& t, const std::string& key, size_t max, bool& given) {
    const bool text = t.has(key), hexed = t.has(key + "_hex");
    given = text || hexed;
    if (text && hexed) t.fail_at(key + "_hex", "give '" + key + "' or '" + key + "_hex', not both");
    if (hexed) return hex_bytes(t, key + "_hex", max);
    const std::string s = t.string(key, "");
    if (s.size() > max)
        t.fail_at(key, "'" + key + "' holds " + std::to_string(s.size()) + " bytes, at most " + std::to_string(max) + " fit");
    return std::vector<uint8_t>(s.begin(), s.end());
}

class UartPeerPiece : public Piece {
public:
    std::string adapter;
    int port = 0;
    UartPeerConfig config;
    // Attached when the world starts, so a stream's first byte is timed from then.
    void start(Bench& bench) override { bench.adapter(adapter)->model<UartModel>().attach(port, config); }
};

std::unique_ptr<Piece> read_uart_peer(Table& t, Context& ctx) {
    auto piece = std::make_unique<UartPeerPiece>();
    world::find_channel(t, ctx, t.required("port"), "UART ports", UartModel::kPorts, piece->adapter, piece->port);
    const std::string port = channel_name(piece->adapter, piece->port);
    t.rename("uart_peer on " + port);
    if (auto owner = ctx.find<std::string>("uart_peer", port)) t.fail_at("port", "UART port " + port + " already has a peer");
    ctx.declare("uart_peer", port, std::make_shared<std::string>(t.what()));
    UartPeerConfig& c = piece->config;
    const std::string mode = t.string("mode");
    using K = UartPeerConfig::Kind;
    if (mode == "echo") c.kind = K::Echo;
    else if (mode == "script") c.kind = K::Script;
    else if (mode == "stream") c.kind = K::Stream;
    else if (mode == "silent") c.kind = K::Silent;
    else t.fail_at("mode", "'mode' must be \"echo\", \"script\", \"stream\" or \"silent\", not \"" + mode + "\"");
    const int64_t baud = t.integer("baud", 0, 0, 12000000);
    if (baud != 0 && baud < 300) t.fail_at("baud", "'baud' must be 300 to 12000000 (or 0: the port's rate)");
    c.baud = uint32_t(baud);
    auto only_for = [&t, &mode](const std::string& key, const char* wanted) {
        if (t.has(key) && mode != wanted)
            t.fail_at(key, "'" + key + "' belongs to mode = \"" + wanted + "\", not \"" + mode + "\"");
    };
    only_for("reply_delay_us", mode == "script" ? "script" : "echo");
    c.reply_delay_us = uint32_t(t.integer("reply_delay_us", 0, 0, 10000000));
    for (const char* key : {"stream", "stream_hex", "repeat", "start_ms"}) only_for(key, "stream");
    only_for("answer", "script");
    if (c.kind == K::Stream) {
        bool given = false;
        c.stream = text_or_hex(t, "stream", kMaxStream, given);
        if (c.stream.empty()) t.fail("a stream peer needs 'stream' (text) or 'stream_hex' (bytes)");
        c.repeat = int(t.integer("repeat", 1, 1, 1000000));
        if (c.stream.size() * size_t(c.repeat) > kMaxStream)
            t.fail_at("repeat", "the stream would be " + std::to_string(c.stream.size() * size_t(c.repeat)) +
                                    " bytes, at most " + std::to_string(kMaxStream));
        c.stream_delay_us = uint32_t(read_ms(t, "start_ms", 0, 3600000));
    }
    if (c.kind == K::Script) {
        const toml::array* answers = t.array("answer");
        if (answers == nullptr || answers->empty()) t.fail("a script peer needs at least one [[uart_peer.answer]]");
        for (const toml::node& item : *answers) {
            if (!item.is_table()) t.fail_node(item, "an answer is { expect = \"...\", reply = \"...\" }");
            Table a(*item.as_table(), t.file(), t.what() + " answer");
            bool expect_given = false, reply_given = false;
            UartPeerConfig::Step step;
            step.expect = text_or_hex(a, "expect", 4096, expect_given);
            step.reply = text_or_hex(a, "reply", kMaxStream, reply_given);
            if (step.expect.empty()) a.fail("an answer needs 'expect' (or 'expect_hex'): the bytes that trigger it");
            if (!reply_given) a.fail("an answer needs 'reply' (or 'reply_hex')");
            a.finish();
            c.script.push_back(std::move(step));
        }
    }
    return piece;
}

POLYBUS_WORLD_KIND(uart_peer_kind,
                   Kind{"uart_peer", world::kRankDevices,
                        "the far end of a UART port: port, mode = echo | script | stream | silent, baud, ...",
                        read_uart_peer});

// ---- [[pin_event]] --------------------------------------------------------------------------------

struct PinSchedule {
    uint32_t mask = 0;
    bool high = false;
    uint64_t at_us = 0, pulse_us = 0, period_us = 0;
    uint32_t count = 1;
};

class PinEventPiece : public Piece {
public:
    std::string adapter;
    PinSchedule schedule;
    void start(Bench& bench) override {
        auto stop = std::make_shared<std::atomic<bool>>(false);
        bench.on_teardown([stop] { stop->store(true); });
        auto run = std::make_shared<Run>(Run{&bench.clock(), bench.adapter(adapter), schedule, stop,
                                             std::chrono::steady_clock::now()});
        Run::next(run, 0);
    }

private:
    struct Run {
        Adapter* clock;
        std::weak_ptr<Adapter> target;
        PinSchedule s;
        std::shared_ptr<std::atomic<bool>> stop;
        std::chrono::steady_clock::time_point start;

        void drive(bool high) {
            if (stop->load()) return;
            if (auto a = target.lock()) a->model<GpioModel>().drive(s.mask, high ? s.mask : 0);
        }
        static void at(std::shared_ptr<Run> run, uint64_t us, std::function<void()> fn) {
            const auto due = run->start + std::chrono::microseconds(us);
            const auto delay = std::chrono::duration_cast<std::chrono::microseconds>(due - std::chrono::steady_clock::now());
            run->clock->after(std::max(delay, std::chrono::microseconds(0)), std::move(fn));
        }
        // Occurrence n: the level, the return after a pulse, then the next occurrence.
        static void next(std::shared_ptr<Run> run, uint32_t n) {
            const uint64_t when = run->s.at_us + uint64_t(n) * run->s.period_us;
            at(run, when, [run, n, when] {
                if (run->stop->load()) return;
                run->drive(run->s.high);
                if (run->s.pulse_us) at(run, when + run->s.pulse_us, [run] { run->drive(!run->s.high); });
                if (run->s.period_us && (run->s.count == 0 || n + 1 < run->s.count)) next(run, n + 1);
            });
        }
    };
};

std::unique_ptr<Piece> read_pin_event(Table& t, Context& ctx) {
    auto piece = std::make_unique<PinEventPiece>();
    int pin = 0;
    world::find_channel(t, ctx, t.required("pin"), "pins", kPins, piece->adapter, pin);
    t.rename("pin_event on " + channel_name(piece->adapter, pin));
    PinSchedule& s = piece->schedule;
    s.mask = 1u << pin;
    const std::string level = t.string("level");
    if (level != "high" && level != "low") t.fail_at("level", "'level' must be \"high\" or \"low\"");
    s.high = level == "high";
    s.at_us = read_ms(t, "at_ms", 0, 86400000);
    s.pulse_us = uint64_t(t.integer("pulse_us", 0, 0, 86400000000LL));
    s.period_us = read_ms(t, "period_ms", 0, 86400000);
    s.count = uint32_t(t.integer("count", s.period_us ? 0 : 1, 0, 1000000000));
    if (s.period_us == 0 && s.count != 1) t.fail_at("count", "an event that repeats needs a 'period_ms'");
    if (s.period_us != 0 && s.pulse_us == 0)
        t.fail_at("period_ms", "a repeating event is a pulse: give 'pulse_us', how long the pin stays at 'level'");
    if (s.period_us != 0 && s.pulse_us >= s.period_us)
        t.fail_at("pulse_us", "'pulse_us' must be shorter than 'period_ms'");
    return piece;
}

POLYBUS_WORLD_KIND(pin_event_kind,
                   Kind{"pin_event", world::kRankDevices,
                        "a pin changing level on a schedule: pin, level, at_ms, pulse_us, period_ms, count",
                        read_pin_event});

}  // namespace
}  // namespace polybus_sim
