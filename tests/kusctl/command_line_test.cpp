// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "kusctl_run.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

const char* const kCommands[] = {"list",  "watch", "check", "diff",     "lint",    "apply", "allow",
                                 "block", "find",  "dump",  "generate", "restore", "reset"};

class CommandTest : public testing::TestWithParam<const char*> {};

TEST_P(CommandTest, ExplainsItself) {
    const Result result = runKusctl("/", {GetParam(), "--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, ContainsRegex(std::string("^usage: kusctl .*") + GetParam()));
    EXPECT_EQ(result.err, "");
}

TEST_P(CommandTest, ExplainsItselfAfterOtherArguments) {
    const Result result = runKusctl("/", {GetParam(), "argument", "-h"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, ContainsRegex(std::string("^usage: kusctl .*") + GetParam()));
}

TEST_P(CommandTest, RefusesUnknownOption) {
    const std::string program = std::string("kusctl ") + GetParam();
    EXPECT_EQ(runKusctl("/", {GetParam(), "--jsno"}),
              (Result{2, "", wrongUseText(program, "option --jsno is not known")}));
}

INSTANTIATE_TEST_SUITE_P(All, CommandTest, testing::ValuesIn(kCommands));

TEST(HelpTest, NamesEveryCommand) {
    const Result result = runKusctl("/", {"--help"});
    EXPECT_EQ(result.status, 0);
    for (const char* command : kCommands) {
        EXPECT_THAT(result.out, HasSubstr(std::string("\n  ") + command + " "));
    }
    EXPECT_EQ(runKusctl("/", {"-h"}), result);
}

struct Mistake {
    std::vector<std::string> arguments;
    const char* program;
    const char* message;
};

class WrongUseTest : public testing::TestWithParam<Mistake> {};

TEST_P(WrongUseTest, EndsWithOneLine) {
    const auto& [arguments, program, message] = GetParam();
    EXPECT_EQ(runKusctl("/", arguments), (Result{2, "", wrongUseText(program, message)}));
}

INSTANTIATE_TEST_SUITE_P(
    All, WrongUseTest,
    testing::Values(
        Mistake{{}, "kusctl", "no command given"},
        Mistake{{"lits"}, "kusctl", "there is no command 'lits'"},
        Mistake{{"\033[31m"}, "kusctl", "there is no command '\\x1B[31m'"},
        Mistake{{"list", "all"}, "kusctl list", "unexpected argument 'all'"},
        Mistake{{"watch", "all"}, "kusctl watch", "unexpected argument 'all'"},
        Mistake{{"dump", "test"}, "kusctl dump", "unexpected argument 'test'"},
        Mistake{{"dump", "topology", "x"}, "kusctl dump", "unexpected argument 'x'"},
        Mistake{{"reset", "0"}, "kusctl reset", "'0' is no number of milliseconds from 1 up"},
        Mistake{{"reset", "5s"}, "kusctl reset", "'5s' is no number of milliseconds from 1 up"},
        Mistake{{"reset", "2147483648"},
                "kusctl reset",
                "'2147483648' is no number of milliseconds from 1 up"},
        Mistake{{"restore", "x.xml"}, "kusctl restore", "unexpected argument 'x.xml'"},
        Mistake{{"generate", "--mode"}, "kusctl generate", "option --mode needs a value"},
        Mistake{{"generate", "--mode", "default"},
                "kusctl generate",
                "'default' is no mode: give whitelist or blacklist"},
        Mistake{{"lint"}, "kusctl lint", "no rules file given"},
        Mistake{{"lint", "--json"}, "kusctl lint", "no rules file given"},
        Mistake{{"lint", "--format", "xml"},
                "kusctl lint",
                "'xml' is no format: give text, json, github or sarif"},
        Mistake{{"diff", "a.xml"}, "kusctl diff", "give two rules files: OLD and NEW"},
        Mistake{{"allow"}, "kusctl allow", "give one of --vendor, --class, --input and ID"},
        Mistake{{"block", "--class", "8", "5"},
                "kusctl block",
                "give one of --vendor, --class, --input and ID"},
        Mistake{{"block", "--product", "8", "--class", "8"},
                "kusctl block",
                "--product goes with --vendor"},
        Mistake{{"allow", "--class", "8,7"}, "kusctl allow", "give one class at a time"},
        Mistake{{"allow", "--class", "12"},
                "kusctl allow",
                "no rule can name a class that has no name: name devices by vendor and product"},
        Mistake{{"allow", "--input", "7"},
                "kusctl allow",
                "no rule can name an input source by the code of a USB class: give --class"},
        Mistake{{"allow", "stick"},
                "kusctl allow",
                "'stick' is no device id as 'kusctl list' shows it"},
        Mistake{{"find"}, "kusctl find", "no word of a vendor's or product's name given"},
        Mistake{{"check", "--devices", "-", "--verbose"},
                "kusctl check",
                "--devices stands alone: only --rules and --json go with it"},
        Mistake{{"apply"}, "kusctl apply", "no rules file given"},
        Mistake{{"lint", "a.xml", "-xy"}, "kusctl lint", "option -x is not known"},
        Mistake{{"lint", "--json", "-j"}, "kusctl lint", "option -j is not known"},
        Mistake{{"list", "--json=yes"}, "kusctl list", "option --json takes no value"},
        Mistake{{"check", "--ve"}, "kusctl check", "option --ve is ambiguous"},
        Mistake{{"generate", "--only", "stick"},
                "kusctl generate",
                "'stick' is no device id as 'kusctl list' shows it"},
        Mistake{{"watch", "--json", "--exec", "/bin/true"},
                "kusctl watch",
                "give --json or --exec, not both"},
        Mistake{{"check"},
                "kusctl check",
                "give --vendor, --product and --class, or --input, or --devices"},
        Mistake{{"check", "--vendor", "1", "--product", "2"},
                "kusctl check",
                "give --vendor, --product and --class, or --input, or --devices"},
        Mistake{{"check", "--vendor", "046d"},
                "kusctl check",
                "vendor '046d' is hexadecimal: write 0x046d"},
        Mistake{{"check", "--product", "0x10000"},
                "kusctl check",
                "product '0x10000' is no number from 0 to 65535 (0x... when hexadecimal)"},
        Mistake{{"check", "--class", "8", "--input", "mouse"},
                "kusctl check",
                "give --class or --input, not both"},
        Mistake{{"check", "--vendor-hid", "--input", "mouse"},
                "kusctl check",
                "--vendor-hid is about a USB device, --input is not"},
        Mistake{{"check", "--vendor", "1", "--input", "mouse"},
                "kusctl check",
                "give --vendor and --product together"},
        Mistake{{"check", "--input", "USB_CLASS_AUDIO"},
                "kusctl check",
                "'USB_CLASS_AUDIO' is neither a number up to 2147483647 nor one of KEYBOARD, DPAD, "
                "GAMEPAD, TOUCHSCREEN, MOUSE, STYLUS, TRACKBALL, MOUSE_RELATIVE, TOUCHPAD, "
                "TOUCH_NAVIGATION, ROTARY_ENCODER, JOYSTICK"},
        Mistake{{"check", "--class", "256"},
                "kusctl check",
                "'256' is neither a number up to 255 nor one of PER_INTERFACE, AUDIO, COMM, HID, "
                "PHYSICA, STILL_IMAGE, PRINTER, MASS_STORAGE, HUB, CDC_DATA, CSCID, CONTENT_SEC, "
                "VIDEO, WIRELESS_CONTROLLER, MISC, APP_SPEC, VENDOR_SPEC"}));

class ClientTest : public testing::TestWithParam<const char*> {};

TEST_P(ClientTest, FailsWithoutBinderDriver) {
    EXPECT_EQ(runKusctl("/", {GetParam()}),
              (Result{1, "",
                      std::string("kusctl ") + GetParam() +
                          ": there is no /dev/binder: this asks the service, on a device\n"}));
}

INSTANTIATE_TEST_SUITE_P(All, ClientTest,
                         testing::Values("list", "watch", "generate", "reset", "dump"));

}  // namespace
