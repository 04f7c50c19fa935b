// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "kusctl_run.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

Result wrongUse(const std::string& command, const std::string& message) {
    const std::string program = command.empty() ? "kusctl" : "kusctl " + command;
    return {2, "", program + ": " + message + " (see '" + program + " --help')\n"};
}

const std::string kCommands[] = {"list",  "watch", "check", "diff",     "lint",    "apply", "allow",
                                 "block", "find",  "dump",  "generate", "restore", "reset"};

TEST(CommandLineTest, EveryCommandExplainsItselfAndRefusesUnknownOptions) {
    const Result all = runKusctl("--help");
    EXPECT_EQ(all.status, 0);
    EXPECT_EQ(runKusctl("-h"), all);
    for (const std::string& command : kCommands) {
        SCOPED_TRACE(command);
        EXPECT_THAT(all.out, HasSubstr("\n  " + command + " "));
        const Result help = runKusctl(command + " --help");
        EXPECT_THAT(help.out, ContainsRegex("^usage: kusctl .*" + command));
        EXPECT_EQ(help, (Result{0, help.out}));
        EXPECT_EQ(runKusctl(command + " argument -h"), help);
        EXPECT_EQ(runKusctl(command + " --jsno"), wrongUse(command, "option --jsno is not known"));
    }
}

TEST(CommandLineTest, WrongUseEndsWithOneLine) {
    const struct {
        std::string command, arguments, message;
    } mistakes[] = {
        {"", "", "no command given"},
        {"", "lits", "there is no command 'lits'"},
        {"", "'\033[31m'", "there is no command '\\x1B[31m'"},
        {"list", "all", "unexpected argument 'all'"},
        {"dump", "test", "unexpected argument 'test'"},
        {"list", "--json=yes", "option --json takes no value"},
        {"lint", "a.xml -xy", "option -x is not known"},
        {"generate", "--mode", "option --mode needs a value"},
        {"check", "--ve", "option --ve is ambiguous"},
        {"reset", "0", "'0' is no number of milliseconds from 1 up"},
        {"reset", "2147483648", "'2147483648' is no number of milliseconds from 1 up"},
        {"generate", "--mode default", "'default' is no mode: give whitelist or blacklist"},
        {"generate", "--only stick", "'stick' is no device id as 'kusctl list' shows it"},
        {"watch", "--json --exec /bin/true", "give --json or --exec, not both"},
        {"lint", "", "no rules file given"},
        {"lint", "--format xml", "'xml' is no format: give text, json, github or sarif"},
        {"diff", "a.xml", "give two rules files: OLD and NEW"},
        {"find", "", "no word of a vendor's or product's name given"},
        {"allow", "", "give one of --vendor, --class, --input and ID"},
        {"block", "--product 8 --class 8", "--product goes with --vendor"},
        {"allow", "--class 8,7", "give one class at a time"},
        {"allow", "--class 12",
         "no rule can name a class that has no name: name devices by vendor and product"},
        {"allow", "--input 7",
         "no rule can name an input source by the code of a USB class: give --class"},
        {"check", "", "give --vendor, --product and --class, or --input, or --devices"},
        {"check", "--vendor 1 --input mouse", "give --vendor and --product together"},
        {"check", "--class 8 --input mouse", "give --class or --input, not both"},
        {"check", "--vendor-hid --input mouse",
         "--vendor-hid is about a USB device, --input is not"},
        {"check", "--devices - --verbose",
         "--devices stands alone: only --rules and --json go with it"},
        {"check", "--vendor 046d", "vendor '046d' is hexadecimal: write 0x046d"},
        {"check", "--product 0x10000",
         "product '0x10000' is no number from 0 to 65535 (0x... when hexadecimal)"},
        {"check", "--input USB_CLASS_AUDIO",
         "'USB_CLASS_AUDIO' is neither a number up to 2147483647 nor one of KEYBOARD, DPAD, "
         "GAMEPAD, TOUCHSCREEN, MOUSE, STYLUS, TRACKBALL, MOUSE_RELATIVE, TOUCHPAD, "
         "TOUCH_NAVIGATION, ROTARY_ENCODER, JOYSTICK"},
        {"check", "--class 256",
         "'256' is neither a number up to 255 nor one of PER_INTERFACE, AUDIO, COMM, HID, PHYSICA, "
         "STILL_IMAGE, PRINTER, MASS_STORAGE, HUB, CDC_DATA, CSCID, CONTENT_SEC, VIDEO, "
         "WIRELESS_CONTROLLER, MISC, APP_SPEC, VENDOR_SPEC"},
    };
    for (const auto& [command, arguments, message] : mistakes) {
        EXPECT_EQ(runKusctl(command + " " + arguments), wrongUse(command, message));
    }
}

TEST(CommandLineTest, ClientsOfTheServiceFailWithoutABinderDriver) {
    const std::string problem = "there is no /dev/binder: this asks the service, on a device\n";
    for (const std::string command : {"list", "watch", "generate", "reset", "dump"}) {
        EXPECT_EQ(runKusctl(command), (Result{1, "", "kusctl " + command + ": " + problem}));
    }
}

TEST(CommandLineTest, WatchRunsNoDirectory) {
    EXPECT_EQ(runKusctl("watch --exec /"),
              (Result{1, "", "kusctl watch: cannot run '/': Permission denied\n"}));
}

}  // namespace
