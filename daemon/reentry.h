// The single-instance test: is another live process of this program running?
#pragma once

// 1 when a process other than this one, whose command name matches the base
// name of argv0 on its first 15 characters (all the kernel keeps), is alive
// and not a zombie; 0 otherwise, and for a null or empty argv0.
int dv_reentried(const char* argv0);
