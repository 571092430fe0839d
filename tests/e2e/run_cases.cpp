// Runs the torvel binary on every case under tests/e2e/cases and compares its
// exit status, standard output and standard error exactly with the case file.
//
// A case file holds "args:", "status:" and optional "program:" (torvel-render
// instead of torvel), "absent:" (files the run must not leave) and "present:"
// lines, "setup:" (shell commands run first, in the same shell, so that
// limits they set hold for the run), "after:" (a shell command that must
// succeed after the run, with $TORVEL naming the torvel binary) and
// "peak_mb_below:" (the run's largest resident set), then "--- stdout" and
// "--- stderr" sections. $TORVEL and $TORVEL_RENDER name the binaries in
// setup and after. Each case runs in a fresh directory holding links to
// the input images made once by fixtures.cpp. With TORVEL_E2E_UPDATE=1 in the
// environment the runner rewrites the sections from what the binary printed,
// for review in the diff.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "fixtures.hpp"

namespace fs = std::filesystem;

namespace {

struct Case {
    std::string name;
    fs::path file;
    std::string args;
    std::string program = TORVEL_BINARY;
    int status = 0;
    std::vector<std::string> absent;
    std::vector<std::string> present;
    std::string setup;
    std::string after;
    long peak_mb_below = 0;  // 0: not measured
    std::string stdout_text;
    std::string stderr_text;
};

void PrintTo(const Case& c, std::ostream* os) {
    *os << c.name;
}

std::vector<std::string> split_words(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

Case read_case(const fs::path& file) {
    Case c;
    c.name = file.stem().string();
    c.file = file;
    std::ifstream in(file);
    std::string line;
    std::string* section = nullptr;
    while (std::getline(in, line)) {
        if (line == "--- stdout") {
            section = &c.stdout_text;
            continue;
        }
        if (line == "--- stderr") {
            section = &c.stderr_text;
            continue;
        }
        if (section) {
            *section += line + "\n";
            continue;
        }
        if (line.rfind("args:", 0) == 0)
            c.args = line.substr(5);
        else if (line.rfind("program: torvel-render", 0) == 0)
            c.program = TORVEL_RENDER_BINARY;
        else if (line.rfind("status:", 0) == 0)
            c.status = std::stoi(line.substr(7));
        else if (line.rfind("absent:", 0) == 0)
            c.absent = split_words(line.substr(7));
        else if (line.rfind("present:", 0) == 0)
            c.present = split_words(line.substr(8));
        else if (line.rfind("setup:", 0) == 0)
            c.setup = line.substr(6);
        else if (line.rfind("after:", 0) == 0)
            c.after = line.substr(6);
        else if (line.rfind("peak_mb_below:", 0) == 0)
            c.peak_mb_below = std::stol(line.substr(14));
    }
    return c;
}

void rewrite_case(const Case& c, const torvel_e2e::RunResult& r) {
    std::ifstream in(c.file);
    std::string header, line;
    while (std::getline(in, line) && line != "--- stdout") header += line + "\n";
    in.close();
    std::ofstream out(c.file);
    out << header << "--- stdout\n" << r.out << "--- stderr\n" << r.err;
}

std::vector<Case> all_cases() {
    std::vector<Case> cases;
    for (const auto& entry :
         fs::directory_iterator(fs::path(TORVEL_SOURCE_DIR) / "tests/e2e/cases"))
        if (entry.path().extension() == ".case") cases.push_back(read_case(entry.path()));
    std::sort(cases.begin(), cases.end(),
              [](const Case& a, const Case& b) { return a.name < b.name; });
    return cases;
}

class Binary : public testing::TestWithParam<Case> {};

TEST_P(Binary, prints_and_exits_as_the_case_file_says) {
    const Case& c = GetParam();
    const fs::path dir = torvel_e2e::fresh_case_dir(c.name);
    setenv("TORVEL", TORVEL_BINARY, 1);
    setenv("TORVEL_RENDER", TORVEL_RENDER_BINARY, 1);
    const torvel_e2e::RunResult r = torvel_e2e::run_in(dir, c.program, c.args, c.setup);
    if (std::getenv("TORVEL_E2E_UPDATE") != nullptr) rewrite_case(c, r);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, c.stdout_text);
    EXPECT_EQ(r.err, c.stderr_text);
    for (const auto& name : c.absent)
        EXPECT_FALSE(fs::exists(dir / name)) << name << " was left behind";
    for (const auto& name : c.present) EXPECT_TRUE(fs::exists(dir / name)) << name << " is missing";
    if (c.peak_mb_below > 0) {
        EXPECT_LT(r.peak_kb, c.peak_mb_below * 1024) << "peak memory in KB";
    }
    if (!c.after.empty()) {
        const std::string check = "cd '" + dir.string() + "' && { " + c.after + "\n}";
        EXPECT_EQ(std::system(check.c_str()), 0) << "after: " << c.after;
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, Binary, testing::ValuesIn(all_cases()),
                         [](const testing::TestParamInfo<Case>& info) { return info.param.name; });

}  // namespace
