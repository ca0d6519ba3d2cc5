#include "tests/fakes/agent_test.h"

#include "actions/script_file.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <thread>

using testing::EndsWith;
using testing::IsEmpty;

namespace {

constexpr const char *SCRIPT = "/var/volatile/orv/77_22:13:20_11-14-2023"; // at START_TIME
constexpr const char *PID_FILE = "/var/volatile/orv/77.pid";

// What stands in the place of the script file, when set.
const char *opened_instead = nullptr;
bool opened_unbuffered = false;
std::function<void()> while_opening;

size_t open_descriptors() {
    return names_in("/proc/self/fd").size();
}

} // namespace

extern "C" FILE *__real_fopen(const char *path, const char *mode);
extern "C" FILE *__wrap_fopen(const char *path, const char *mode);

extern "C" FILE *__wrap_fopen(const char *path, const char *mode) {
    if (while_opening)
        while_opening();
    FILE *file = __real_fopen(opened_instead != nullptr ? opened_instead : path, mode);
    if (file != nullptr && opened_unbuffered)
        setvbuf(file, nullptr, _IONBF, 0);
    return file;
}

class GenerateScript : public AgentTest {
protected:
    GenerateScript() { setenv("TZ", "UTC", 1); }
    ~GenerateScript() override {
        unsetenv("TZ");
        opened_instead = nullptr;
        opened_unbuffered = false;
        while_opening = nullptr;
    }

    int generate(const std::string &job_text) {
        job = json(job_text);
        return generate_cli_script(job, script_path, output_path, error);
    }

    Json::Value job;
    std::string script_path;
    std::string output_path;
    std::string error;
};

TEST_F(GenerateScript, NamesTheFileByIdAndLocalTimeWithoutZeros) {
    set_time(1709456707);

    EXPECT_EQ(generate(R"({"jobId":"42", "params":{"script":"true"}})"), 0);

    EXPECT_EQ(script_path, "/var/volatile/orv/42_9:5:7_3-3-2024");
    EXPECT_EQ(output_path, "/tmp/cli_output_42.txt");
    EXPECT_EQ(error, "");
    EXPECT_THAT(names_in("/var/volatile/orv"), ListIs("42_9:5:7_3-3-2024"));
}

TEST_F(GenerateScript, TakesTheTimeZoneThatIsInForceAtTheTime) {
    generate(R"({"jobId":"77", "params":{"script":"true"}})");
    setenv("TZ", "EAST-3", 1);
    generate(R"({"jobId":"77", "params":{"script":"true"}})");

    EXPECT_EQ(script_path, "/var/volatile/orv/77_1:13:20_11-15-2023");
}

TEST_F(GenerateScript, PutsThePreambleBeforeTheScript) {
    generate(R"({"jobId":"77", "params":{"script":"echo hello"}})");

    EXPECT_EQ(file_text(SCRIPT),
              "#!/bin/sh\n"
              "\n"
              "exec > /tmp/cli_output_77.txt\n"
              "exec 2>&1\n"
              "\n"
              "set -e\n"
              "\n"
              "echo $$ > /var/volatile/orv/77.pid\n"
              "\n"
              "export PATH=/usr/local/bin:/usr/bin:/bin:/var/data/python/usr/bin:/usr/local/sbin:/usr/sbin:"
              "/sbin\n"
              "\n"
              "export ACK_ID=\"77\"\n"
              "\n"
              "echo hello");
}

TEST_F(GenerateScript, KeepsTheScriptAsItStands) {
    for (const std::string script : {"", "\n", "printf '%s %d\\n' a 1\r\n# \xc3\xa9\n\n", "no line end"}) {
        Json::Value with_script = json(R"({"jobId":"77", "params":{}})");
        with_script["params"]["script"] = script;
        generate(with_script.toStyledString());

        EXPECT_THAT(file_text(SCRIPT), EndsWith("export ACK_ID=\"77\"\n\n" + script));
    }
}

TEST_F(GenerateScript, StoresThePathBeforeItTouchesTheFile) {
    generate(R"({"jobId":"77", "status":"executed", "params":{"script":"true"}})");

    EXPECT_THAT(calls_of({"syslog", "write_json_file", "sync_to_fs", "delete_file"}),
                ListIs("syslog cli script file: /var/volatile/orv/77_22:13:20_11-14-2023",
                       "syslog write job file: 77",
                       "write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2",
                       "delete_file /var/volatile/orv/77_22:13:20_11-14-2023"));
    EXPECT_THAT(log_lines().front(), Notice("cli script file: " + std::string(SCRIPT)));
    EXPECT_THAT(job, HasMembers(R"({"script_file":"/var/volatile/orv/77_22:13:20_11-14-2023"})"));
    EXPECT_THAT(active_job("77"), IsJson(R"({"jobId":"77", "status":"executed", "params":{"script":"true"},
                           "script_file":"/var/volatile/orv/77_22:13:20_11-14-2023"})"));
}

TEST_F(GenerateScript, GoesOnWhenThePathCannotBeStored) {
    fakes::always_returns("write_json_file", -1);

    EXPECT_EQ(generate(R"({"jobId":"77", "params":{"script":"true"}})"), 0);

    EXPECT_TRUE(exists(SCRIPT));
}

// A script may hold a passphrase; the files that other code makes keep the mask.
TEST_F(GenerateScript, MakesTheFileForItsOwnerAlone) {
    const mode_t mask = umask(022);
    generate(R"({"jobId":"77", "params":{"script":"true"}})");
    struct stat status {};
    ASSERT_EQ(stat(SCRIPT, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, mode_t{0600});
    EXPECT_EQ(umask(mask), mode_t{022});
}

// Another thread that looks at its mask just as the script file is made finds its own.
TEST_F(GenerateScript, LeavesTheModesOfTheOtherThreadsFilesAlone) {
    const mode_t mask = umask(022);
    std::promise<void> opening;
    std::promise<mode_t> seen;
    std::thread other([&] {
        opening.get_future().wait();
        const mode_t meanwhile = umask(022);
        umask(meanwhile);
        seen.set_value(meanwhile);
    });
    mode_t seen_meanwhile = 0;
    while_opening = [&] {
        opening.set_value();
        seen_meanwhile = seen.get_future().get();
    };

    generate(R"({"jobId":"77", "params":{"script":"true"}})");

    other.join();
    EXPECT_EQ(seen_meanwhile, mode_t{022});
    EXPECT_EQ(umask(mask), mode_t{022});
}

TEST_F(GenerateScript, ReplacesAFileOfThatName) {
    write_text("/tmp/elsewhere", "kept");
    std::filesystem::create_symlink("/tmp/elsewhere", SCRIPT);

    generate(R"({"jobId":"77", "params":{"script":"true"}})");

    EXPECT_FALSE(std::filesystem::is_symlink(SCRIPT));
    EXPECT_EQ(file_text("/tmp/elsewhere"), "kept");
}

TEST_F(GenerateScript, FailsWithTheReasonWhenTheFileCannotBeOpened) {
    std::filesystem::create_directory(SCRIPT);

    EXPECT_EQ(generate(R"({"jobId":"77", "params":{"script":"true"}})"), -1);

    EXPECT_EQ(error, "failed to generate command job script: Is a directory");
    EXPECT_THAT(active_job("77"),
                HasMembers(R"({"script_file":"/var/volatile/orv/77_22:13:20_11-14-2023"})"));
    EXPECT_EQ(log_lines().size(), 2U);
}

TEST_F(GenerateScript, FailsWithTheReasonWhenItsFolderIsMissing) {
    std::filesystem::remove("/var/volatile/orv");

    EXPECT_EQ(generate(R"({"jobId":"77", "params":{"script":"true"}})"), -1);

    EXPECT_EQ(error, "failed to generate command job script: No such file or directory");
}

TEST_F(GenerateScript, FailsWithAFixedTextWhenThePreambleCannotBeWritten) {
    opened_instead = "/dev/full";
    opened_unbuffered = true;
    const size_t descriptors = open_descriptors();

    EXPECT_EQ(generate(R"({"jobId":"77", "params":{"script":"true"}})"), -1);

    EXPECT_EQ(error, "failed to prepare command job payload: %s");
    EXPECT_EQ(output_path, "/tmp/cli_output_77.txt");
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(GenerateScript, DoesNotNoticeThatTheScriptItselfCannotBeWritten) {
    opened_instead = "/dev/full"; // the preamble still goes into the buffer
    const size_t descriptors = open_descriptors();

    EXPECT_EQ(generate(R"({"jobId":"77", "params":{"script":"true"}})"), 0);

    EXPECT_EQ(error, "");
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(GenerateScript, ThrowsOnAScriptThatIsNoText) {
    const size_t descriptors = open_descriptors();

    EXPECT_THROW(generate(R"({"jobId":"77", "params":{"script":{}}})"), Json::Exception);

    EXPECT_EQ(open_descriptors(), descriptors);
}

class ClearScript : public AgentTest {
protected:
    ClearScript() {
        write_text(SCRIPT, "true");
        write_text("/tmp/cli_output_77.txt", "output");
    }

    static void clear(const std::string &job_text) { clear_job_cli_script(json(job_text)); }

    static constexpr const char *JOB =
        R"({"jobId":"77", "script_file":"/var/volatile/orv/77_22:13:20_11-14-2023"})";
};

TEST_F(ClearScript, KillsTheScriptAndDeletesItsFiles) {
    write_text(PID_FILE, "4711\n");
    answer_command("/bin/kill", 0);

    clear(JOB);

    EXPECT_THAT(calls(), ListIs("orvsys /bin/kill -9 4711", "delete_file /var/volatile/orv/77.pid",
                                "delete_file /var/volatile/orv/77_22:13:20_11-14-2023"));
    EXPECT_THAT(log_lines(), ListIs(Debug("clear job cli script"), Debug("kill cmd script pid 4711")));
    EXPECT_THAT(names_in("/var/volatile/orv"), IsEmpty());
    EXPECT_EQ(file_text("/tmp/cli_output_77.txt"), "output");
}

TEST_F(ClearScript, ReallyEndsAProcess) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0)
        for (;;)
            pause();
    write_text(PID_FILE, std::to_string(child) + "\n");

    clear(JOB);

    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST_F(ClearScript, KillsNothingWithoutAPidFile) {
    clear(JOB);

    EXPECT_THAT(commands(), IsEmpty());
    EXPECT_FALSE(exists(SCRIPT));
    EXPECT_THAT(log_lines(), ListIs(Debug("clear job cli script")));
}

TEST_F(ClearScript, DeletesAPidFileThatItCannotRead) {
    write_text(PID_FILE, "4711\n");
    fakes::will_return("read_var_file", {-1});

    clear(JOB);

    EXPECT_THAT(commands(), IsEmpty());
    EXPECT_FALSE(exists(PID_FILE));
}

TEST_F(ClearScript, DeletesThePidFileWhenTheProcessIsGone) {
    write_text(PID_FILE, "4711\n");
    answer_command("/bin/kill", 1);

    clear(JOB);

    EXPECT_FALSE(exists(PID_FILE));
    EXPECT_FALSE(exists(SCRIPT));
}

TEST_F(ClearScript, WithoutAJobIdDeletesTheScriptAlone) {
    write_text(PID_FILE, "4711\n");

    clear(R"({"script_file":"/var/volatile/orv/77_22:13:20_11-14-2023"})");

    EXPECT_THAT(calls(), ListIs("delete_file /var/volatile/orv/77_22:13:20_11-14-2023"));
    EXPECT_TRUE(exists(PID_FILE));
}

TEST_F(ClearScript, WithoutAScriptFileDeletesThePidFileAlone) {
    clear(R"({"jobId":"77"})");

    EXPECT_THAT(calls(), ListIs("delete_file /var/volatile/orv/77.pid"));
    EXPECT_TRUE(exists(SCRIPT));
}

class PayloadCommand : public AgentTest {
protected:
    struct closer {
        void operator()(FILE *file) const { fclose(file); }
    };

    static bool write(const std::string &command, const char *path = "/tmp/payload") {
        const std::unique_ptr<FILE, closer> file(fopen(path, "w"));
        setvbuf(file.get(), nullptr, _IONBF, 0);
        return write_payload_command(file.get(), command);
    }
};

TEST_F(PayloadCommand, IsALineOfItsOwn) {
    EXPECT_TRUE(write("echo 100% %s"));

    EXPECT_EQ(file_text("/tmp/payload"), "echo 100% %s\n");
    EXPECT_THAT(log_lines(), ListIs(Debug("vantrel-iot command: [echo 100% %s]")));
}

TEST_F(PayloadCommand, IsIgnoredWhenEmpty) {
    EXPECT_FALSE(write(""));

    EXPECT_EQ(file_text("/tmp/payload"), "");
    EXPECT_THAT(log_lines(), ListIs(Notice("ignoring empty command")));
}

TEST_F(PayloadCommand, IsCutAfter4095Characters) {
    const std::string longest(4095, 'a');

    EXPECT_TRUE(write(longest));
    EXPECT_EQ(file_text("/tmp/payload"), longest + "\n");
    EXPECT_TRUE(write(longest + "b"));
    EXPECT_EQ(file_text("/tmp/payload"), longest + "\n");

    EXPECT_THAT(log_lines().back(), Debug("vantrel-iot command: [" + longest + "]"));
}

TEST_F(PayloadCommand, FailsWithTheReasonWhenItCannotBeWritten) {
    EXPECT_FALSE(write("true", "/dev/full"));

    EXPECT_THAT(log_lines(), ListIs(Debug("vantrel-iot command: [true]"),
                                    Notice("error writing to payload script: No space left on device")));
}
