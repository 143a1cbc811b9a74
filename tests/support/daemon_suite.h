// The daemon on a simulated root, started with its capture files where a
// test can see them and stopped with a check that it ended cleanly: what
// the case driver and the end-to-end tests that cannot be rows share.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "sim/simlib.h"
#include "support/daemon_process.h"
#include "support/settle.h"
#include "support/sim_root.h"
#include "support/tempdir.h"

// Replies all handler families share, and a handler's own failure reply.
inline const std::string kOk = "{\"result\":0}\n";
inline const std::string kInputError = "{\"error_code\":-1,\"error_msg\":\"input error\"}\n";
inline const std::string kParseError = "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n";
std::string failure(const std::string& handler);

std::string encode_base64(const std::string& bytes);

// Starts daemon with TMPDIR at captures, so that the capture files it makes
// land where a test can see them; the test's own files stay where they were.
bool start_daemon(DaemonProcess& daemon, const TempDir& captures);
// An orderly stop with nothing on stderr: a sanitizer report or stray output
// fails the test. Harmless after a test stopped the daemon itself.
void expect_clean_stop(DaemonProcess& daemon);

// Replaces the root's caller policy with text (unless empty), sends the
// daemon SIGHUP and waits until its log says the policy was read again.
bool reload_policy(SimRoot& root, const DaemonProcess& daemon, const std::string& text = "");

// A fresh root and daemon for every test, stopped and checked at its end,
// with every capture file gone again.
class DaemonPerTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    SimRoot root_;
    TempDir captures_;
    DaemonProcess daemon_{root_};
};
