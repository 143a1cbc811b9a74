// The plumbing every end-to-end suite shares: the daemon on a simulated root,
// one per suite or a fresh one per test, stopped with a check that it ended
// cleanly, and the helpers the suites call it through.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/sim/simlib.h"
#include "support/daemon_process.h"
#include "support/settle.h"
#include "support/sim_root.h"
#include "support/tempdir.h"

using Argv = std::vector<std::string>;

// Replies all handler families share, and a handler's own failure reply.
inline const std::string kOk = "{\"result\":0}\n";
inline const std::string kInputError = "{\"error_code\":-1,\"error_msg\":\"input error\"}\n";
inline const std::string kParseError = "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n";
std::string failure(const std::string& handler);

std::string encode_base64(const std::string& bytes);
std::string decode_base64(const std::string& text);

// Starts daemon with TMPDIR at captures, so that the capture files it makes
// land where a test can see them; the test's own files stay where they were.
bool start_daemon(DaemonProcess& daemon, const TempDir& captures);
// An orderly stop with nothing on stderr: a sanitizer report or stray output
// fails the test. Harmless after a test stopped the daemon itself.
void expect_clean_stop(DaemonProcess& daemon);

// One command; a client status other than DV_STATUS_OK fails the test unless
// status is given to take it.
std::string checked_call(const DaemonProcess& daemon, const std::string& command, const std::string& request,
                         int* status = nullptr);
// The argument vectors who was run with, in journal order.
std::vector<Argv> argvs(const SimRoot& root, const std::string& who);
// text with the line number of every "[handler][N]" written as "#": it moves
// with the code.
std::string without_line_number(std::string text, const std::string& handler);
// The messages of handler in a debug-log text, one a line, from
// "[handler][#]" on.
std::vector<std::string> handler_messages(const std::string& log, const std::string& handler);

// Replaces the root's caller policy with text (unless empty), sends the
// daemon SIGHUP and waits until its log says the policy was read again.
bool reload_policy(SimRoot& root, const DaemonProcess& daemon, const std::string& text = "");

// What both fixtures below offer a test, whichever daemon they hold.
class DaemonFixture : public testing::Test {
protected:
    DaemonFixture(SimRoot* root, DaemonProcess* daemon, const TempDir* captures)
        : root_of_(root), daemon_of_(daemon), captures_of_(captures)
    {
    }

    // Clears the journal (start-up's registry look-ups, the last test's
    // calls) and marks where this test's part of the debug log begins.
    void SetUp() override;
    // Every capture file is gone again once its request is answered.
    void TearDown() override;

    SimRoot& root() const { return *root_of_; }
    DaemonProcess& daemon() const { return *daemon_of_; }
    const TempDir& captures() const { return *captures_of_; }

    std::string call(const std::string& command, const std::string& request = "{}", int* status = nullptr) const
    {
        return checked_call(*daemon_of_, command, request, status);
    }
    std::vector<Argv> argvs(const std::string& who) const { return ::argvs(*root_of_, who); }
    // The debug-log messages of handler since the test began.
    std::vector<std::string> log_of(const std::string& handler) const;

private:
    SimRoot* root_of_;
    DaemonProcess* daemon_of_;
    const TempDir* captures_of_;
    size_t log_seen_ = 0;
};

// One daemon for a whole suite: `class Foo : public DaemonPerSuite<Foo>`, so
// that each suite has a daemon of its own. Every test starts with no program
// steered and an empty journal.
template <class Suite>
class DaemonPerSuite : public DaemonFixture {
protected:
    DaemonPerSuite() : DaemonFixture(root_.get(), daemon_.get(), captures_.get()) {}

    static void SetUpTestSuite()
    {
        root_ = std::make_unique<SimRoot>();
        captures_ = std::make_unique<TempDir>();
        daemon_ = std::make_unique<DaemonProcess>(*root_);
        ASSERT_TRUE(start_daemon(*daemon_, *captures_)) << daemon_->stderr_text();
    }
    static void TearDownTestSuite()
    {
        if (daemon_)
            expect_clean_stop(*daemon_);
        daemon_.reset();
        captures_.reset();
        root_.reset();
    }
    void SetUp() override
    {
        root_->remove(sim::STEER_DIR);
        DaemonFixture::SetUp();
    }

    static inline std::unique_ptr<SimRoot> root_;
    static inline std::unique_ptr<TempDir> captures_;
    static inline std::unique_ptr<DaemonProcess> daemon_;
};

// A fresh root and daemon for every test, stopped and checked at its end.
class DaemonPerTest : public DaemonFixture {
protected:
    DaemonPerTest() : DaemonFixture(&root_, &daemon_, &captures_) {}

    void SetUp() override
    {
        ASSERT_TRUE(start_daemon(daemon_, captures_)) << daemon_.stderr_text();
        DaemonFixture::SetUp();
    }
    void TearDown() override
    {
        expect_clean_stop(daemon_);
        DaemonFixture::TearDown();
    }

    SimRoot root_;
    TempDir captures_;
    DaemonProcess daemon_{root_};
};
