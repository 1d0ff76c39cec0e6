// Whatever ends dolm, and whenever: the files of a set are all old or all new for the next command.
#include "dolm_process.h"
#include "sample.h"

namespace {

using namespace dolm_process;

// Of the calls of a command, every so many are where it is disturbed.
constexpr int call_step = dolm_test::is_small_sample ? 3 : 1;

// The recovery is disturbed at each of its calls after every so many of those.
constexpr int recovery_step = dolm_test::is_small_sample ? 2 : 1;

// A set of which one member is a link into another folder, and commands that change it.
class Crash : public Dolm {
  protected:
    void SetUp() override {
        Dolm::SetUp();
        fs::create_directories(folder / "old/elsewhere");
        fs::rename(set, folder / "old/set");
        fs::rename(folder / "old/set/qfs.img", folder / "old/elsewhere/flash");
        fs::create_symlink("../elsewhere/flash", folder / "old/set/qfs.img");
        write_whole(folder / "tables.json", R"({"skus": [1], "files": [
            {"name": "/home/a", "number": 1, "max_size": 4, "base": "x"}]})");
    }

    // In a fresh copy of "old" if it is not told to go on. The n-th call that changes something is
    // where the program is killed, gets a signal or sees a failure.
    Outcome run_until(const std::string &how, int n, const std::string &arguments,
                      bool goes_on = false) {
        if (!goes_on) {
            restore("old", "now");
        }
        return shell("cd now; LD_PRELOAD=" CRASH_SHIM
                     " ASAN_OPTIONS=verify_asan_link_order=0 CRASH_HOW=" +
                     how + " CRASH_AT=" + std::to_string(n) + " $dolm " + arguments);
    }

    void restore(const char *from, const char *to) {
        fs::remove_all(folder / to);
        fs::copy(folder / from, folder / to,
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    }

    Folder state() const { return snapshot(folder / "now"); }

    // What a whole run makes of "old".
    Folder changed_by(const std::string &arguments) {
        const Outcome outcome = run_until("kill", 0, arguments);
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        return state();
    }

    // The next command sees the old set or the new one whole, and leaves nothing else behind.
    void expect_whole(const Folder &before, const Folder &after) {
        const bool was_interrupted = fs::exists(folder / "now/set/dolm-change.undo") ||
                                     fs::exists(folder / "now/set/dolm-change.finish");
        const Outcome next = shell("cd now; $dolm get set mca/version --sku 1 || "
                                   "$dolm get set a --sku 1");
        EXPECT_EQ(next.code, 0) << next.err;
        EXPECT_EQ(next.err.find("had been interrupted") != std::string::npos, was_interrupted);
        const Folder now = state();
        EXPECT_TRUE(now == before || now == after);
    }

    const std::string commands[2] = {"set set net/ntp new radio/cal/trim hex:01",
                                     "build ../tables.json set --replace"};
};

TEST_F(Crash, KilledAtAnyCallInTheCommandOrInTheRecoveryItLeavesAWholeSet) {
    for (const std::string &command : commands) {
        const Folder old = snapshot(folder / "old");
        const Folder changed = changed_by(command);
        ASSERT_NE(old, changed);
        int n = 1;
        while (run_until("kill", n, command).code != 0) {
            SCOPED_TRACE(command + ", killed at call " + std::to_string(n));
            restore("now", "cut");
            for (int m = 1; n / call_step % recovery_step == 0; ++m) {
                restore("cut", "now");
                if (run_until("kill", m, "list set --sku 1", true).code == 0) {
                    break;
                }
                SCOPED_TRACE("the recovery killed at call " + std::to_string(m));
                expect_whole(old, changed);
            }
            restore("cut", "now");
            expect_whole(old, changed);
            n += call_step;
        }
        EXPECT_GT(n, 12) << command;
        EXPECT_EQ(state(), changed);
    }
}

TEST_F(Crash, ASignalLeavesNothingBehind) {
    for (const std::string &command : commands) {
        const Folder old = snapshot(folder / "old");
        const Folder changed = changed_by(command);
        int n = 1;
        while (run_until("signal", n, command).code != 0) {
            const Folder now = state();
            EXPECT_TRUE(now == old || now == changed) << command << " at call " << n;
            n += call_step;
        }
        EXPECT_GT(n, 8) << command;
    }
}

TEST_F(Crash, NoNewFolderStaysEmpty) {
    const Folder old = snapshot(folder / "old");
    for (const std::string command :
         {"build ../tables.json new/deep", "set set -o new/deep net/ntp x"}) {
        for (const char *how : {"signal", "fail"}) {
            for (int n = 1; n <= 4; ++n) {
                EXPECT_NE(run_until(how, n, command).code, 0);
                EXPECT_EQ(state(), old) << how << " at call " << n << " of " << command;
            }
        }
    }
}

TEST_F(Crash, AFailureChangesNothingOrLeavesAWarning) {
    for (const std::string &command : commands) {
        const Folder old = snapshot(folder / "old");
        const Folder changed = changed_by(command);
        int failures = 0;
        for (int n = 1;; n += call_step) {
            const Outcome outcome = run_until("fail", n, command);
            SCOPED_TRACE(command + ", failing at call " + std::to_string(n));
            if (outcome.code == 0 && outcome.err.find("warning: the change") == std::string::npos) {
                EXPECT_EQ(state(), changed);
                break;
            }
            failures += call_step;
            expect_whole(outcome.code == 0 ? changed : old, outcome.code == 0 ? changed : old);
        }
        EXPECT_GT(failures, 12);
    }
}

// The journal as docs/formats.md describes it, written by someone else.
TEST_F(Crash, ReadsAJournalThatAnotherProgramHasWritten) {
    restore("old", "now");
    const fs::path now = folder / "now/set";
    const std::string new_store = read_whole(now / "vync.cfg") + "more";
    const auto interrupt = [&](const char *name, const std::string &steps) {
        write_whole(now / ".vync.cfg.mine.new", new_store);
        write_whole(now / name, "dolm-change 1\n" + steps);
        return run("list now/set --sku 1");
    };
    const Folder before = state();
    const char *step = "overwrite vync.cfg .vync.cfg.mine.new\n";
    EXPECT_EQ(interrupt("dolm-change.undo", std::string(step) + "end\n").code, 0);
    EXPECT_EQ(state(), before);
    // Without its last line it was never finished itself, and nothing else had been made.
    EXPECT_EQ(interrupt("dolm-change.undo", "").code, 0);
    EXPECT_FALSE(fs::exists(now / "dolm-change.undo"));
    EXPECT_EQ(interrupt("dolm-change.finish", std::string(step) + "remove set.json\nend\n").code,
              0);
    Folder after = before;
    after["set/vync.cfg"] = new_store;
    after.erase("set/set.json");
    EXPECT_EQ(state(), after);
    for (const char *bad :
         {"", "replace vync.cfg ../vync.cfg.new\nend\n", "remove other\nend\n",
          "replace vync.cfg .vync.cfg.mine.new\n",
          "replace vync.cfg .vync.cfg./../set/.vync.cfg.mine.new\nend\n",
          "replace ../vync.cfg .../vync.cfg.mine.new\nend\n",
          "replace vync.cfg .orvel.cfg.mine.new\nend\n", "overwrite vync.cfg\nend\n",
          "remove vync.cfg .vync.cfg.new\nend\n", "exchange vync.cfg .vync.cfg.mine.new\nend\n"}) {
        const Outcome refused = interrupt("dolm-change.finish", bad);
        EXPECT_EQ(refused.code, 1) << bad;
        EXPECT_NE(refused.err.find("dolm-change.finish is damaged"), std::string::npos) << bad;
    }
}

// A recovery finds some steps taken, by it or by the command, and members gone meanwhile.
TEST_F(Crash, FinishesWhateverPartOfAChangeIsLeft) {
    const std::string members[] = {"orvel.cfg", "vync.cfg", "ftbl.bin",
                                   "qfs.img",   "efs.img",  "set.json"};
    for (const std::string kind : {"replace", "overwrite"}) {
        for (const std::string &gone : members) {
            for (const bool is_fresh : {true, false}) {
                SCOPED_TRACE(kind + (is_fresh ? ", taken: " : ", gone: ") + gone);
                restore("old", "now");
                const fs::path now = folder / "now/set";
                fs::copy_file(folder / "now/elsewhere/flash", folder / "image");
                fs::rename(folder / "image", now / "qfs.img");
                Folder expected = snapshot(now);
                std::string journal = "dolm-change 1\n";
                for (const std::string &member : members) {
                    const std::string fresh = "." + member + ".x.new";
                    journal += kind + " " + member + " " + fresh + "\n";
                    if (is_fresh && member == gone) {
                        continue;
                    }
                    expected[member] = "new " + member;
                    write_whole(now / fresh, "new " + member);
                }
                write_whole(now / "dolm-change.finish", journal + "end\n");
                if (!is_fresh) {
                    fs::remove(now / gone);
                }
                if (kind == "overwrite" && !is_fresh) {
                    // Who knows where it belongs: it stays a file that somebody has to bring back.
                    const Outcome refused = run("list now/set");
                    EXPECT_EQ(refused.code, 1);
                    EXPECT_NE(refused.err.find("could not be finished"), std::string::npos);
                    EXPECT_EQ(read_whole(now / ("." + gone + ".x.new")), "new " + gone);
                    write_whole(now / gone, "");
                }
                EXPECT_NE(run("list now/set").err.find("it was finished"), std::string::npos);
                EXPECT_TRUE(snapshot(now) == expected);
            }
        }
    }
}

// What cannot be removed or renamed keeps its journal, so that the next command goes on.
TEST_F(Crash, ARecoveryThatFailsIsTakenUpAgain) {
    for (const std::string end : {"undo", "finish"}) {
        restore("old", "now");
        write_whole(folder / "now/set/.vync.cfg.x.new", read_whole(folder / "now/set/vync.cfg"));
        const Folder whole = state();
        write_whole(folder / ("now/set/dolm-change." + end),
                    "dolm-change 1\nreplace vync.cfg .vync.cfg.x.new\nend\n");
        const Folder before = state();
        const Outcome failed = run_until("fail", 1, "list set --sku 1", true);
        EXPECT_EQ(failed.code, 1);
        EXPECT_NE(failed.err.find("could not be " + end), std::string::npos) << failed.err;
        EXPECT_TRUE(state() == before);
        EXPECT_EQ(run("list now/set --sku 1").code, 0);
        Folder after = whole;
        after.erase("set/.vync.cfg.x.new");
        EXPECT_TRUE(state() == after);
    }
}

// A file with a second name is written over, and once that has begun there is no way back.
TEST_F(Crash, AFailureInAFileWithASecondNameLeavesItOldOrNew) {
    const std::string change = "set set net/ntp new --sku 1";
    const auto run_with_link = [&](int n) {
        restore("old", "now");
        fs::create_hard_link(folder / "now/set/vync.cfg", folder / "now/same");
        return run_until("fail", n, change, true);
    };
    const Folder old = snapshot(folder / "old");
    ASSERT_EQ(run_with_link(0).code, 0);
    Folder changed = state();
    EXPECT_EQ(changed["same"], changed["set/vync.cfg"]);
    changed.erase("same");
    int failures = 0;
    for (int n = 1;; n += call_step) {
        SCOPED_TRACE("failing at call " + std::to_string(n));
        const Outcome outcome = run_with_link(n);
        if (outcome.code == 0 && outcome.err.find("warning: the change") == std::string::npos) {
            break;
        }
        failures += call_step;
        EXPECT_EQ(run("list now/set --sku 1").code, 0);
        Folder now = state();
        EXPECT_TRUE(now["same"] == now["set/vync.cfg"]);
        now.erase("same");
        EXPECT_TRUE(now == (outcome.code == 0 ? changed : old));
    }
    EXPECT_GT(failures, 12);
}

TEST_F(Crash, ChangesAtTheSameTimeAreAllKept) {
    restore("old", "now");
    const char *names[] = {"net/ntp",     "net/dns",     "net/gateway",  "net/address",
                           "usb/product", "mca/version", "net/hostname", "audio/volume"};
    for (const std::string round : {"1", "2", "3"}) {
        std::string together;
        for (const char *name : names) {
            together += "$dolm set now/set " + std::string(name) + " v" + round + " & ";
        }
        const std::string said = shell(together + "$dolm list now/set >/dev/null & wait").err;
        EXPECT_EQ(said.find("interrupted"), std::string::npos) << said;
        for (const char *name : names) {
            EXPECT_EQ(value("now/set " + std::string(name)), "v" + round + "\n");
        }
    }
}

} // namespace
