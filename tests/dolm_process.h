// The program dolm as a process of its own, in a temporary folder with the sample set in "set".
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <span>
#include <string>

namespace dolm_process {

namespace fs = std::filesystem;

using Folder = std::map<std::string, std::string>; // path to content

inline std::string read_whole(const fs::path &path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

inline void write_whole(const fs::path &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline Folder snapshot(const fs::path &folder) {
    Folder files;
    for (const auto &item : fs::recursive_directory_iterator(folder)) {
        const std::string name = item.path().lexically_relative(folder);
        files[name] = item.is_symlink()        ? "-> " + fs::read_symlink(item.path()).string()
                      : item.is_regular_file() ? read_whole(item.path())
                                               : "";
    }
    return files;
}

struct Outcome {
    int code; // of the shell: 128 and the signal that ended the program
    std::string out;
    std::string err;
};

class Dolm : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directory(folder);
        ASSERT_EQ(run("sample set").code, 0);
    }
    void TearDown() override { fs::remove_all(folder); }

    // Runs a shell command in the test's folder; $dolm is the program.
    Outcome shell(const std::string &command) const {
        const int status =
            std::system(("cd '" + folder.string() + "' && dolm=" DOLM_PROGRAM "; { " + command +
                         "; } >out.txt 2>err.txt")
                            .c_str());
        const Outcome outcome{WEXITSTATUS(status), read_whole(folder / "out.txt"),
                              read_whole(folder / "err.txt")};
        fs::remove(folder / "out.txt");
        fs::remove(folder / "err.txt");
        return outcome;
    }

    // Arguments are in shell notation.
    Outcome run(const std::string &arguments) const { return shell("$dolm " + arguments); }

    std::string value(const std::string &name) const {
        const Outcome outcome = run("get " + name);
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        return outcome.out;
    }

    const fs::path folder = testing::TempDir() + "dolm_test." + std::to_string(getpid());
    const fs::path set = folder / "set";
};

struct Call {
    const char *arguments;
    int code;
    const char *part; // of what it prints; of its complaints if it prints nothing
};

class DolmCalls : public Dolm {
  protected:
    // None of them changes anything in the folder.
    void expect_each(std::span<const Call> calls) {
        const Folder before = snapshot(folder);
        for (const Call &expected : calls) {
            SCOPED_TRACE(expected.arguments);
            const Outcome outcome = run(expected.arguments);
            const std::string &said = outcome.out.empty() ? outcome.err : outcome.out;
            EXPECT_EQ(outcome.code, expected.code);
            EXPECT_NE(said.find(expected.part), std::string::npos) << said;
            EXPECT_EQ(snapshot(folder), before);
        }
    }
};

} // namespace dolm_process
