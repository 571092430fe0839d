// How the programs share cores: the CPU time a cgroup grants, read from
// cgroup file systems built in a temporary directory, and the waiting of
// OpenMP's threads as libgomp itself reports it in each program.

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <torvel/cores.hpp>

extern char** environ;

namespace {

namespace fs = std::filesystem;

class CgroupTree : public ::testing::Test {
protected:
    void SetUp() override {
        root_ = fs::temp_directory_path() / ("torvel-cgroup-" + std::to_string(getpid()));
        fs::remove_all(root_);
        fs::create_directories(root_);
    }
    void TearDown() override { fs::remove_all(root_); }

    void write(const std::string& path, const std::string& text) {
        fs::create_directories((root_ / path).parent_path());
        std::ofstream(root_ / path) << text;
    }
    int limit(const std::string& self_cgroup) {
        return torvel::cgroup_cpu_limit(root_.string(), self_cgroup);
    }

    fs::path root_;
};

TEST_F(CgroupTree, Version2TakesTheSmallestLimitOnTheWayUp) {
    write("cgroup.controllers", "cpu memory\n");
    EXPECT_EQ(limit("0::/batch/job\n"), 0);  // no cpu.max anywhere
    write("batch/cpu.max", "250000 100000\n");
    write("batch/job/cpu.max", "max 100000\n");
    EXPECT_EQ(limit("0::/batch/job\n"), 3);  // 2.5 cores rounded up, from the parent
    write("batch/job/cpu.max", "50000 100000\n");
    EXPECT_EQ(limit("0::/batch/job\n"), 1);
    write("batch/job/cpu.max", "garbage\n");
    EXPECT_EQ(limit("0::/batch/job"), 3);
    // Seen from inside a container, the path names a directory that is not
    // there; the container's own limit is at the root.
    write("cpu.max", "100000 100000\n");
    EXPECT_EQ(limit("0::/host/path\n"), 1);
}

TEST_F(CgroupTree, Version1ReadsTheCpuControllersHierarchy) {
    write("cpu,cpuacct/job/cpu.cfs_quota_us", "300000\n");
    write("cpu,cpuacct/job/cpu.cfs_period_us", "100000\n");
    write("memory/job/cpu.cfs_quota_us", "100000\n");  // not the cpu controller's
    write("memory/job/cpu.cfs_period_us", "100000\n");
    const std::string self = "12:memory:/job\n5:cpu,cpuacct:/job\n0::/job\n";
    EXPECT_EQ(limit(self), 3);
    write("cpu,cpuacct/job/cpu.cfs_quota_us", "-1\n");  // none
    EXPECT_EQ(limit(self), 0);
    // cpuset alone is not cpu; cpu named on its own mounts as cpu.
    EXPECT_EQ(limit("3:cpuset:/job\n"), 0);
    write("cpu/job/cpu.cfs_quota_us", "150000\n");
    write("cpu/job/cpu.cfs_period_us", "100000\n");
    EXPECT_EQ(limit("4:cpu:/job\n"), 2);
    // Version 2 beside version 1 (a hybrid system) is under unified/.
    write("unified/job/cpu.max", "100000 100000\n");
    EXPECT_EQ(limit("4:cpu:/job\n0::/job\n"), 1);
    EXPECT_EQ(limit(""), 0);
    EXPECT_EQ(limit("no colons here\n"), 0);
}

// What a shell command prints on its standard output.
std::string output_of(const std::string& command) {
    std::FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return "popen failed";
    std::string text;
    char buffer[4096];
    while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) text.append(buffer, n);
    pclose(pipe);
    return text;
}

// What libgomp says of its waiting in `program -h` run under `env ARGS`:
// the value it reports for GOMP_SPINCOUNT, its spin rounds before sleeping.
std::string spin_count(const std::string& program, const std::string& env_args) {
    const std::string command = "env -u OMP_WAIT_POLICY -u GOMP_SPINCOUNT " + env_args +
                                " OMP_DISPLAY_ENV=VERBOSE " + program + " -h 2>&1 >/dev/null";
    const std::string text = output_of(command);
    const std::string key = "GOMP_SPINCOUNT = '";
    const std::size_t at = text.find(key);
    if (at == std::string::npos) return "not reported";
    const std::size_t begin = at + key.size();
    return text.substr(begin, text.find('\'', begin) - begin);
}

// libgomp's own count when nothing is set, and with OMP_WAIT_POLICY=ACTIVE.
constexpr long long kLibgompDefault = 300000;

TEST(Waiting, EveryProgramBoundsItsSpinUnlessTheUserSetsTheWaiting) {
    for (const char* program : {TORVEL_BINARY, TORVEL_RENDER_BINARY, TORVEL_REPORT_BINARY}) {
        SCOPED_TRACE(program);
        const std::string bounded = spin_count(program, "");
        ASSERT_NE(bounded, "not reported");
        EXPECT_LT(std::stoll(bounded), kLibgompDefault);
        // With nothing in the environment to lend its place, by a restart.
        EXPECT_EQ(spin_count(program, "-i OMP_DISPLAY_ENV=VERBOSE NOT_A_LENDER=1"), bounded);
        EXPECT_EQ(spin_count(program, "OMP_WAIT_POLICY=active"), "30000000000");
        EXPECT_EQ(spin_count(program, "OMP_WAIT_POLICY=passive"), "0");
        EXPECT_EQ(spin_count(program, "GOMP_SPINCOUNT=7"), "7");
    }
}

// The address sanitizer reserves far more address space than any limit
// here would leave, so its build cannot run a program under one.
#ifndef __SANITIZE_ADDRESS__
// Under an address-space limit too small for OpenBLAS's start, a program
// says so and stops instead of spinning in the library for ever.
TEST(Starting, ProgramsRefuseAnAddressSpaceTheSolverCannotStartIn) {
    for (const char* program : {TORVEL_BINARY, TORVEL_RENDER_BINARY, TORVEL_REPORT_BINARY}) {
        SCOPED_TRACE(program);
        const std::string command = std::string("ulimit -v 200000; timeout 60 ") + program +
                                    " -h 2>&1 >/dev/null; echo \"status $?\"";
        const std::string text = output_of(command);
        const std::string name = std::filesystem::path(program).filename().string();
        EXPECT_EQ(text.rfind(name + ": the address-space limit (ulimit -v) of 195 MiB", 0), 0u)
            << text;
        EXPECT_NE(text.find("\nstatus 1\n"), std::string::npos) << text;
    }
}
#endif

// This test program calls share_cores(), so it started as the programs do:
// the entry of the environment lent to libgomp is back, and nothing was
// added to the environment the process started with.
TEST(Waiting, TheEnvironmentIsTheOneTheProcessStartedWith) {
    torvel::share_cores();
    std::ifstream file("/proc/self/environ");
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    std::vector<std::string> started;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = text.find('\0', begin);
        started.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    std::vector<std::string> now;
    for (char** entry = environ; *entry != nullptr; ++entry) now.emplace_back(*entry);
    EXPECT_EQ(now, started);
}

}  // namespace
