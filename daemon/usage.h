// The daemon's --help, -h and --version: answered before anything starts.
#pragma once

// When an argument (before any "--") is --help, -h or --version, prints the
// usage or the version on standard output and returns 0, the status to exit
// with; otherwise returns -1 and the daemon starts as usual.
int answer_usage_query(int argc, char** argv);
