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

// The in-thread ioctl path (umockdev_guards.cpp). The hook answers a usbfs ioctl
// on one of the simulator's nodes: it returns 1 and stores the ioctl's result (with
// errno set on -1), or returns 0 to let umockdev forward it. The close hook hears of
// every descriptor passed to polybus_sim_watch_close when it is closed. Looked up
// by name (dlsym) where the program's copy must be the one used.
extern "C" {
typedef int (*polybus_sim_ioctl_hook)(int fd, unsigned long request, void* arg, int* result);
typedef void (*polybus_sim_close_hook)(int fd);
void polybus_sim_set_ioctl_hooks(polybus_sim_ioctl_hook on_ioctl, polybus_sim_close_hook on_close);
void polybus_sim_watch_close(int fd);
}
