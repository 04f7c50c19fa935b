// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unwindstack/Error.h>
#include <unwindstack/Unwinder.h>

#include <memory>
#include <string>
#include <vector>

namespace unwindstack {

/** What one Unwind gathered, innermost frame first. */
struct AndroidUnwinderData {
    std::string GetErrorString() const;

    std::vector<FrameData> frames;
    ErrorData error = {ERROR_NONE, 0};
};

/**
 * Unwinds the calling thread, through the signal frame too when called from a handler. The part
 * of the API 34 class of this name that a crash handler uses, on Debian's older library.
 */
class AndroidLocalUnwinder {
  public:
    AndroidLocalUnwinder();
    ~AndroidLocalUnwinder();

    /** Returns false, with `error` set, when no frame was found. */
    bool Unwind(AndroidUnwinderData& data);

    /** Formats a frame of the last Unwind. */
    std::string FormatFrame(const FrameData& frame) const;

  private:
    std::unique_ptr<Maps> maps_;
    std::unique_ptr<Regs> regs_;
    std::unique_ptr<Unwinder> unwinder_;
};

}  // namespace unwindstack
