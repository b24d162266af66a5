// World files for analog inputs, PWM capture and counters: what a bad table is refused
// with and where, and that the shipped analog worlds are accepted.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "world.h"

namespace {

using polybus_sim::world::load_world;
using polybus_sim::world::parse_world;
using polybus_sim::world::WorldError;

// bench: a model whose PWM channels 0 and 1 are the last two outputs; wide: all eight.
const char* kAdapters = R"(
[[adapter]]
name = "bench"
id = 0x41000001

[[adapter]]
name = "wide"
id = 0x54000002

[[adapter]]
name = "nopwm"
id = 0x01000003
)";
constexpr int kFirstTableLine = 13;

WorldError refusal(const std::string& tables) {
    const std::string text = std::string(kAdapters) + tables;
    try {
        parse_world(text, "/tmp/analog.toml");
    } catch (const WorldError& e) {
        return e;
    }
    ADD_FAILURE() << "accepted:\n" << tables;
    return WorldError({}, "");
}

struct Case {
    const char* tables;
    const char* expected;
};

void expect_refused(const Case* begin, const Case* end) {
    for (const Case* c = begin; c != end; ++c) {
        WorldError e = refusal(c->tables);
        EXPECT_NE(e.message().find(c->expected), std::string::npos) << c->tables << "\n-> " << e.what();
        EXPECT_GE(e.where().line, kFirstTableLine) << c->tables;
    }
}

TEST(WorldAnalog, AdcInputsAreChecked) {
    const Case cases[] = {
        {"[[adc_input]]\nsignal = \"sine\"\n", "missing key 'input'"},
        {"[[adc_input]]\ninput = \"bench:8\"\nsignal = \"dac\"\n", "has ADC inputs 0 to 7"},
        {"[[adc_input]]\ninput = \"ghost:0\"\nsignal = \"dac\"\n", "no adapter named 'ghost'"},
        {"[[adc_input]]\ninput = \"bench:0\"\n", "missing key 'signal'"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"square\"\n", "'signal' must be"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"constant\"\n", "missing key 'level'"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"constant\"\nlevel = 4096\n", "code from 0 to 4095"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"constant\"\nlevel = -1\n", "code from 0 to 4095"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"constant\"\nlevel = \"high\"\n", "must be a number"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"sine\"\namplitude = 100\n", "missing key 'frequency_hz'"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"sine\"\nfrequency_hz = 0\n", "above 0"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"sine\"\nfrequency_hz = nan\n", "above 0"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"sine\"\nfrequency_hz = 2e6\n", "at most 1000000"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"sine\"\nfrequency_hz = 5\namplitude = -3\n", "from 0 to 4095"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"ramp\"\nfrequency_hz = 5\nto = 5000\n", "code from 0 to 4095"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"noise\"\ndeviation = inf\n", "from 0 to 4095"},
        // Keys of another signal are not silently ignored.
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"constant\"\nlevel = 5\nfrequency_hz = 3\n", "unknown key"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"dac\"\nlevel = 5\n", "unknown key"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"pwm\"\n", "missing key 'pwm'"},
        {"[[adc_input]]\ninput = \"bench:0\"\nsignal = \"pwm\"\npwm = 2\n", "adapter 'bench' has no PWM channel 2"},
        {"[[adc_input]]\ninput = \"nopwm:0\"\nsignal = \"pwm\"\npwm = 0\n", "has no PWM channel 0"},
        {"[[adc_input]]\ninput = \"bench:3\"\nsignal = \"dac\"\n[[adc_input]]\ninput = \"bench:3\"\nsignal = \"dac\"\n",
         "input bench:3 is given twice"},
    };
    expect_refused(std::begin(cases), std::end(cases));
}

TEST(WorldAnalog, CaptureAndCounterWiresAreChecked) {
    const Case cases[] = {
        {"[[pwm_capture]]\ninput = \"bench:4\"\npwm = 0\n", "has capture inputs 0 to 3"},
        {"[[pwm_capture]]\ninput = \"bench:0\"\npwm = 8\n", "must be"},
        {"[[pwm_capture]]\ninput = \"bench:0\"\npwm = 5\n", "adapter 'bench' has no PWM channel 5"},
        {"[[pwm_capture]]\ninput = \"wide:1\"\npwm = 1\n[[pwm_capture]]\ninput = \"wide:1\"\n",
         "capture input wide:1 is given twice"},
        {"[[pwm_capture]]\ninput = \"wide:1\"\npwm = 1\ngpio_pin = 3\n", "unknown key"},
        {"[[counter_input]]\ncounter = \"bench:4\"\npwm = 0\n", "has counters 0 to 3"},
        {"[[counter_input]]\ncounter = \"bench:0\"\npwm = 0\ngpio_pin = 1\n", "a PWM output or a GPIO pin, not both"},
        {"[[counter_input]]\ncounter = \"bench:0\"\ngpio_pin = 32\n", "must be"},
        {"[[counter_input]]\ncounter = \"nopwm:2\"\npwm = 0\n", "has no PWM channel 0"},
        {"[[counter_input]]\ncounter = \"wide:2\"\n[[counter_input]]\ncounter = \"wide:2\"\ngpio_pin = 1\n",
         "counter wide:2 is given twice"},
    };
    expect_refused(std::begin(cases), std::end(cases));
}

TEST(WorldAnalog, RefusalsPointAtTheOffendingValue) {
    WorldError e = refusal("[[adc_input]]\ninput = \"bench:0\"\nsignal = \"sine\"\nfrequency_hz = -4\n");
    EXPECT_EQ(e.where().file, "/tmp/analog.toml");
    EXPECT_EQ(e.where().line, kFirstTableLine + 3);
    EXPECT_EQ(e.where().column, 16);  // the value, not the key
    EXPECT_NE(e.message().find("adc_input 'bench:0'"), std::string::npos) << e.what();
}

TEST(WorldAnalog, WholeAnalogWorldsAreAccepted) {
    // Every signal kind and wire on one adapter, and the same index on another adapter.
    const std::string tables = R"(
[[adc_input]]
input = "wide:0"
signal = "constant"
level = 0
[[adc_input]]
input = "wide:1"
signal = "sine"
frequency_hz = 50
amplitude = 2047
[[adc_input]]
input = "wide:2"
signal = "ramp"
from = 4095
to = 0
frequency_hz = 1
[[adc_input]]
input = "wide:3"
signal = "noise"
[[adc_input]]
input = "wide:4"
signal = "dac"
[[adc_input]]
input = "wide:5"
signal = "pwm"
pwm = 7
full_scale = 3300
[[adc_input]]
input = "bench:0"
signal = "pwm"
pwm = 1
[[pwm_capture]]
input = "wide:0"
pwm = 3
[[pwm_capture]]
input = "bench:0"
[[counter_input]]
counter = "wide:0"
gpio_pin = 31
[[counter_input]]
counter = "wide:1"
pwm = 0
[[counter_input]]
counter = "bench:3"
)";
    try {
        EXPECT_EQ(parse_world(std::string(kAdapters) + tables, "/tmp/analog.toml").adapter_count(), 3u);
    } catch (const WorldError& e) {
        ADD_FAILURE() << e.what();
    }
    // The worked example on the world-file page.
    std::ifstream page(std::string(POLYBUS_SOURCE_DIR) + "/docs/world-files.md");
    std::stringstream text;
    text << page.rdbuf();
    const std::string doc = text.str();
    const size_t section = doc.find("### `[[adc_input]]`");
    ASSERT_NE(section, std::string::npos);
    const size_t begin = doc.find("```toml\n", section);
    ASSERT_NE(begin, std::string::npos);
    const size_t end = doc.find("```", begin + 8);
    try {
        EXPECT_EQ(parse_world(doc.substr(begin + 8, end - begin - 8), "/tmp/doc.toml").adapter_count(), 1u);
    } catch (const WorldError& e) {
        ADD_FAILURE() << e.what();
    }
    for (const char* name : {"adc_scope", "pwm_sweep"}) {
        const std::string path = std::string(POLYBUS_SOURCE_DIR) + "/examples/worlds/" + name + ".toml";
        try {
            EXPECT_EQ(load_world(path).adapter_count(), 1u) << name;
        } catch (const std::exception& e) {
            ADD_FAILURE() << e.what();
        }
    }
}

}  // namespace
