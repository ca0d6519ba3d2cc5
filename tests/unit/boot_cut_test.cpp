// A boot that is cut itself, before each change it makes, and with what it has deleted since its last flush lost or
// not, comes to the same end when it runs again.
#include "tests/unit/boot_bed.h"

#include "tests/fakes/device.h"

#include <functional>
#include <optional>

#include <sys/wait.h>

namespace {

constexpr int NOT_CUT = 255;

// What the flash may bring back.
struct deletion {
    std::string path;
    std::string text;
};

std::vector<deletion> unflushed;
int changes = 0;
bool flushing = false;

void follow(const fakes::call &change) {
    ++changes;
    if (flushing)
        unflushed.clear();
    flushing = change.function == "sync_to_fs";
    if (change.function == "delete_file" && exists(change.text))
        unflushed.push_back({change.text, file_text(change.text)});
}

// Ends the process before its nth change, with the deletions of `lost`, a set of bits, undone. Its status is how
// many there were to undo.
[[noreturn]] void cut(unsigned lost) {
    const std::vector<deletion> to_undo = unflushed;
    for (size_t i = 0; i < to_undo.size(); ++i)
        if ((lost >> i & 1U) != 0)
            fakes::write_all(to_undo[i].path, to_undo[i].text);
    _exit(static_cast<int>(to_undo.size()));
}

[[noreturn]] void live(int nth, unsigned lost, void (*verb)()) {
    fakes::before_change = [nth, lost](const fakes::call &change) {
        if (changes + 1 == nth) {
            if (flushing)
                unflushed.clear();
            cut(lost);
        }
        follow(change);
    };
    verb();
    _exit(NOT_CUT);
}

// How many deletions were not flushed then; nothing when there are not so many changes.
std::optional<unsigned> run_cut(int nth, unsigned lost, void (*verb)()) {
    const pid_t child = fork();
    if (child == 0)
        live(nth, lost, verb);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) == NOT_CUT)
        return std::nullopt;
    return WEXITSTATUS(status);
}

} // namespace

class BootThatIsCut : public BootTest {
protected:
    using world = std::function<void()>;

    static void given(const world &make) {
        fakes::reset();
        fakes::device().reboots = fakes::reboot_mode::RETURNS;
        given_saved(old_config());
        make();
    }

    // But for the count of attempts: a cut may cost one.
    static std::map<std::string, std::string> all_but_attempts() {
        auto files = all_files();
        files.erase(ATTEMPTS);
        return files;
    }

    static void expect_the_same_end(const world &make, void (*verb)() = finish_what_a_cut_has_left) {
        given(make);
        const auto before = all_but_attempts();
        verb();
        const auto end = all_but_attempts();
        const auto rebooted = reboots();
        EXPECT_TRUE(end != before || !rebooted.empty()) << "nothing is done there";

        int nth = 1;
        for (bool was_cut = true; was_cut; ++nth) {
            was_cut = false;
            unsigned subsets = 1;
            for (unsigned lost = 0; lost < subsets; ++lost) {
                given(make);
                const auto unflushed_then = run_cut(nth, lost, verb);
                if (!unflushed_then)
                    break;
                was_cut = true;
                subsets = 1U << *unflushed_then;
                verb();
                EXPECT_EQ(all_but_attempts(), end) << "cut before change " << nth << ", lost " << lost;
                EXPECT_EQ(reboots(), rebooted) << "cut before change " << nth << ", lost " << lost;
            }
        }
        EXPECT_GT(nth, 2) << "nothing was cut";
    }

    static void new_firmware_with(const std::string &status) {
        given_running_slot(2);
        given_firmware_job(firmware_job(status));
        given_staged(new_config());
        write_text(UPDATED, "slot 2\n");
        write_text(MIGRATE, "1.1.0\n");
        write_text(TRIAL, "2 2\n");
    }

    static void local_upgrade_with(const std::string &status) {
        given_running_slot(2);
        given_record_of_local_upgrade(status);
        given_staged(old_config());
        write_text(LOCAL, "slot 2\n");
        write_text(UPDATED, "slot 2\n");
        write_text(MIGRATE, "1.1.0\n");
        write_text(TRIAL, "2 2\n");
        write_text(INSTALLED, "1500 -\n");
    }
};

TEST_F(BootThatIsCut, AtAnEndedApply) {
    expect_the_same_end([] { given_cut_apply("failed"); });
    expect_the_same_end([] {
        given_cut_apply("success");
        given_saved(new_config());
    });
}

TEST_F(BootThatIsCut, AtAnEndedApplyBesideARecordOfALocalUpgrade) {
    expect_the_same_end([] {
        given_cut_apply("failed");
        given_record_of_local_upgrade("executed");
    });
}

TEST_F(BootThatIsCut, AtAnApplyOfALocalUpgradeThatHadEnded) {
    expect_the_same_end([] {
        given_cut_apply("failed", "LOCAL_FW_UPGRADE");
        given_record_of_local_upgrade("failed");
    });
}

TEST_F(BootThatIsCut, AtAnApplyThatCannotBeResumed) {
    expect_the_same_end([] {
        write_text(NEW_COPY, new_config());
        write_text(JOB_COPY, "{");
        write_text(TIMER, "{}");
    });
    expect_the_same_end([] {
        given_cut_apply("executed");
        unlink(NEW_COPY);
    });
}

TEST_F(BootThatIsCut, AtUntoldFailures) {
    expect_the_same_end([] {
        given_active_job(R"({"jobId":"1", "status":"failed"})");
        given_active_job(R"({"jobId":"2", "status":"failed"})");
    });
}

TEST_F(BootThatIsCut, AtASuccessfulUpgrade) {
    expect_the_same_end([] {
        new_firmware_with("success");
        given_saved(new_config());
    });
}

TEST_F(BootThatIsCut, AtAMigrationThatWasLeftOfASuccess) {
    expect_the_same_end([] {
        new_firmware_with("success");
        given_saved(new_config());
        unlink(UPDATED);
    });
}

TEST_F(BootThatIsCut, AtASuccessThatWasNotCommitted) {
    expect_the_same_end([] { new_firmware_with("success"); });
}

TEST_F(BootThatIsCut, AtAFailedUpgrade) {
    expect_the_same_end([] { new_firmware_with("failed"); });
}

TEST_F(BootThatIsCut, AtASlotThatWasGivenUp) {
    expect_the_same_end([] {
        new_firmware_with("executed");
        given_running_slot(1);
    });
}

TEST_F(BootThatIsCut, AtMarksToComplete) {
    expect_the_same_end([] {
        new_firmware_with("executed");
        unlink(UPDATED);
    });
    expect_the_same_end([] {
        local_upgrade_with("executed");
        unlink(UPDATED);
    });
}

TEST_F(BootThatIsCut, AtALocalUpgradeWhoseSlotDoesNotRun) {
    expect_the_same_end([] {
        local_upgrade_with("executed");
        given_running_slot(1);
    });
}

TEST_F(BootThatIsCut, AtALocalUpgradeBesideOneOfTheCloud) {
    for (const char *status : {"executed", "success"}) {
        expect_the_same_end([status] {
            new_firmware_with(status);
            given_saved(new_config());
            given_record_of_local_upgrade("executed");
            write_text(LOCAL, "slot 1\n");
        });
    }
}

TEST_F(BootThatIsCut, AtALocalUpgradeThatIsASuccess) {
    expect_the_same_end([] { local_upgrade_with("success"); });
}

TEST_F(BootThatIsCut, AtALocalUpgradeThatFailed) {
    expect_the_same_end([] { local_upgrade_with("failed"); });
}

TEST_F(BootThatIsCut, AtALocalUpgradeThatIsOver) {
    expect_the_same_end([] {
        local_upgrade_with("executed");
        unlink(UPDATED);
        unlink(STAGED);
    });
}

TEST_F(BootThatIsCut, AtAllAtOnce) {
    expect_the_same_end([] {
        given_cut_apply("failed");
        given_active_job(R"({"jobId":"1", "status":"failed"})");
        new_firmware_with("failed");
    });
}

TEST_F(BootThatIsCut, AtLeftoversBeforeARestart) {
    expect_the_same_end(
        [] {
            for (const char *name : {"CRITICAL_JOB_EXECUTING", "FW_JOBID", "1.pid", "2.pid"})
                write_text(std::string("/var/volatile/orv/") + name, "1\n");
        },
        clear_what_a_kill_has_left);
}
