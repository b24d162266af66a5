// Fixes for libumockdev-preload 0.17 that every process carrying a testbed needs
// (see umockdev_guards.cpp): per-thread saving of the signal mask the preload
// blocks around wrapped calls, no system calls for that on fully blocked threads,
// and its locks held across fork().
#pragma once

namespace polybus_sim {

// Registers the pthread_atfork handler once (no-op without the preload).
void install_fork_guard();

// For threads that must never run signal handlers (umockdev's handler thread):
// process-directed signals then go to the program's own threads, and the
// preload's masking costs this thread nothing.
void block_all_signals_in_this_thread();

}  // namespace polybus_sim
