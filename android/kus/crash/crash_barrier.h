// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace android::kus {

/**
 * While one lives, its thread uses the process-wide tables, or writes the rules' files or a role. A
 * crash on another thread lets that end, for a second at most: the files are then whole, and nobody
 * uses the tables while `exit` destroys them.
 */
class SharedStateUse {
  public:
    /** Does not return while another thread crashes. */
    SharedStateUse();
    /** The same: what the use led to is not told to anybody any more. */
    ~SharedStateUse();
    SharedStateUse(const SharedStateUse&) = delete;

    /**
     * For the crash handler, which goes on alone: lets no other thread begin a use from now on, and
     * waits for those that are under way. Takes no lock. Of two threads that crash, the second one
     * does not return.
     */
    static void endAll();
};

}  // namespace android::kus
