// SPDX-License-Identifier: Apache-2.0
//
// What the thread sanitizer is not to report, in every test executable; each with its reason.

// GLib and sd-bus are not built with the thread sanitizer, which does not see their locks. A bind is not ordered with
// the event thread's look at the bound name, on purpose; the tests' own function is the nearest one that the report
// names.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions()
{
    return "called_from_lib:libglib-2.0.so.0\n"
           "called_from_lib:libsystemd.so.0\n"
           "race:bindExpecting\n";
}
