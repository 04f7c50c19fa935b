// SPDX-License-Identifier: Apache-2.0
#include <android-base/stringprintf.h>
#include <inttypes.h>
#include <unistd.h>
#include <unwindstack/AndroidUnwinder.h>
#include <unwindstack/Memory.h>
#include <unwindstack/RegsGetLocal.h>

namespace unwindstack {

namespace {

constexpr size_t kMaxFrames = 512;

const std::vector<std::string> kOwnLibraries = {"libunwindstack.so"};

const char* describe(ErrorCode code) {
    switch (code) {
        case ERROR_NONE:
            return "None";
        case ERROR_MEMORY_INVALID:
            return "Memory Invalid";
        case ERROR_UNWIND_INFO:
            return "Unwind Info";
        case ERROR_UNSUPPORTED:
            return "Unsupported";
        case ERROR_INVALID_MAP:
            return "Invalid Map";
        case ERROR_MAX_FRAMES_EXCEEDED:
            return "Maximum Frames Exceeded";
        case ERROR_REPEATED_FRAME:
            return "Repeated Frame";
        case ERROR_INVALID_ELF:
            return "Invalid Elf";
    }
    return "Unknown";
}

}  // namespace

std::string AndroidUnwinderData::GetErrorString() const {
    if (error.code != ERROR_MEMORY_INVALID) return describe(error.code);
    return android::base::StringPrintf("%s at address 0x%" PRIx64, describe(error.code),
                                       error.address);
}

AndroidLocalUnwinder::AndroidLocalUnwinder() : maps_(std::make_unique<LocalMaps>()) {}

AndroidLocalUnwinder::~AndroidLocalUnwinder() = default;

bool AndroidLocalUnwinder::Unwind(AndroidUnwinderData& data) {
    data = {};
    if (!maps_->Parse()) {
        data.error.code = ERROR_INVALID_MAP;
        return false;
    }
    regs_.reset(Regs::CreateFromLocal());
    unwinder_ = std::make_unique<Unwinder>(kMaxFrames, maps_.get(), regs_.get(),
                                           Memory::CreateProcessMemoryCached(getpid()));
    unwinder_->SetDisplayBuildID(true);

    RegsGetLocal(regs_.get());
    unwinder_->Unwind(&kOwnLibraries);

    data.error = {unwinder_->LastErrorCode(), unwinder_->LastErrorAddress()};
    data.frames = unwinder_->ConsumeFrames();
    return !data.frames.empty();
}

std::string AndroidLocalUnwinder::FormatFrame(const FrameData& frame) const {
    return unwinder_->FormatFrame(frame);
}

}  // namespace unwindstack
