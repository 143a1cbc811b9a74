// The daemon on a simulated root with its capture files where a test sees
// them, stopped with a check that it ended cleanly: what the case driver and
// the end-to-end tests that cannot be rows share.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/daemon_process.h"

// Replies all handler families share, and a handler's own failure reply.
inline const std::string kOk = "{\"result\":0}\n";
inline const std::string kInputError = "{\"error_code\":-1,\"error_msg\":\"input error\"}\n";
inline const std::string kParseError = "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n";
std::string failure(const std::string& handler);

std::string encode_base64(const std::string& bytes);

// TMPDIR at captures for the daemon alone.
bool start_daemon(DaemonProcess& daemon, const TempDir& captures);
// An orderly stop with nothing on stderr (a sanitizer report fails the
// test); harmless after a test stopped the daemon itself.
void expect_clean_stop(DaemonProcess& daemon);
// Writes text as the caller policy (unless empty), sends SIGHUP and waits
// until the log says the policy was read again.
bool reload_policy(SimRoot& root, const DaemonProcess& daemon, const std::string& text = "");

// A fresh root and daemon for every test, checked at its end, with every
// capture file gone.
class DaemonPerTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    SimRoot root_;
    TempDir captures_;
    DaemonProcess daemon_{root_};
};
