// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Runs the rest of the program in a mount namespace of its own, as a child process: the root
 * directory is a tmpfs in which /data and /sys are empty, /dev holds a few harmless devices, and
 * everything else is the machine's. Returns only in that child; the caller ends with its status,
 * or with a message and status 1 where such a world cannot be made.
 */
void enterPrivateWorld(char** argv);
