// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <utils/Vector.h>

#include <thread>

#include "kusctl.h"

namespace android::kus {
namespace {

constexpr char kHelp[] = R"(usage: kusctl dump [topology]

Prints the service's own account of the devices that it has decided on, as the platform's dump tool
shows it; with 'topology' the USB tree that it reads from sysfs.
)";

const String16 kTopologyArgument("test");

// Through a pipe, as the platform's dump tool does it: a service may not be permitted to write to
// the terminal or file of whoever asks.
status_t copyDump(const sp<IBinder>& service, const Vector<String16>& args) {
    base::unique_fd in, out;
    if (!base::Pipe(&in, &out)) fail(std::string("cannot make a pipe: ") + strerror(errno));
    status_t status = OK;
    std::thread asking([&] {
        status = service->dump(out.get(), args);
        out.reset();
    });
    char buffer[4096];
    for (ssize_t size; (size = TEMP_FAILURE_RETRY(read(in.get(), buffer, sizeof(buffer)))) > 0;) {
        fwrite(buffer, 1, size, stdout);
    }
    asking.join();
    return status;
}

int run(int argc, char** argv) {
    parseOptions(argc, argv, {});
    Vector<String16> args;
    if (optind < argc && strcmp(argv[optind], "topology") == 0) {
        args.add(kTopologyArgument);
        ++optind;
    }
    expectNoArguments(argc, argv);

    const status_t status = copyDump(IInterface::asBinder(connectToService()), args);
    if (status != OK) fail(std::string("the service did not answer: ") + strerror(-status));
    return kYes;
}

}  // namespace

const Command kDumpCommand = {"dump", "the service's dump, or the USB topology", kHelp, run};

}  // namespace android::kus
