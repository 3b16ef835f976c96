// The service restarts under a running daemon: the example daemon sees it
// gone, opens the library again, programs its whole state again and
// registers again, and the device ends with exactly the daemon's state.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "emu_fixture.h"

namespace emut {
namespace {

// Every table but the channel keys, which name the connection of the day.
Json State(const Json &tables) {
    Json state = tables;
    for (const char *keyed : {"channel", "reg"})
        for (Json &row : state[keyed]) row.erase("key");
    return state;
}

TEST_F(EmuTest, TheDaemonRecoversItsWholeStateAfterARestart) {
    const pid_t daemon = fork();
    if (daemon == 0) {
        std::freopen((dir_ + "/daemon.log").c_str(), "w", stdout);
        execl(L2VFIB_FIB_DAEMON_PATH, "fib_daemon", "10", static_cast<char *>(nullptr));
        _exit(127);
    }
    auto registered = [&] {
        for (int i = 0; i < 200; ++i) {
            if (!Rows("reg").empty()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        return false;
    };
    ASSERT_TRUE(registered());
    const Json before = State(Steer(Json{{"cmd", "show"}, {"table", "all"}})["tables"]);
    ASSERT_FALSE(before["pw"].empty());

    Steer(Json{{"cmd", "fault"}, {"fault", "restart"}});
    ASSERT_TRUE(registered()) << "the daemon did not register again";
    // Registered again is the last step of its recovery.
    EXPECT_EQ(State(Steer(Json{{"cmd", "show"}, {"table", "all"}})["tables"]), before);
    EXPECT_EQ(Counter("restarts"), 1u);

    // Its event channel and service socket deliver again: it leaves once it
    // has handled a notice and an event.
    Steer(Json{{"cmd", "notice"}, {"value", 42}});
    EXPECT_EQ(Steer(Json{{"cmd", "event"}, {"type", 3}, {"words", {1, 2}}})["sent"], 1);
    int status = -1;
    for (int i = 0; i < 200 && waitpid(daemon, &status, WNOHANG) == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    if (!WIFEXITED(status)) kill(daemon, SIGKILL);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace emut
