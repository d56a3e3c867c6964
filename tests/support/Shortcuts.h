#pragma once

namespace tarn_test {

// Makes what all tests of a process use, before the first of them is forked. Test programs that are
// linked without Shortcuts.cpp have none.
__attribute__((weak)) void prepareShortcuts();

// While it is not null, what the library's set-up command does instead; its result is the status.
extern int (*g_setUpInstead)();

}  // namespace tarn_test
