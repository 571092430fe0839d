#include <torvel/cores.hpp>

#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#ifdef _OPENMP
#include <omp.h>
#endif

namespace torvel {

namespace {

// How long a libgomp thread that has run out of work spins before it
// sleeps, in rounds of its spin loop (libgomp reckons 100 a microsecond;
// libgomp's own default is 300000, milliseconds). Long enough to bridge the
// short serial steps between the parallel ones of a solve, so that on an
// idle machine a run is as fast as with the default (a sleeping thread costs
// a wake-up, which a virtual machine makes slow); short enough that a thread
// does not hold a core for long that another program, or this run's own
// thread pushed off its core, is waiting for. Measured (bench/batch.py):
// 3000 made runs on an idle machine some percent slower, 10000 and more
// made two runs side by side markedly slower.
constexpr char kSpinCount[] = "GOMP_SPINCOUNT=5000";

// Variables of the shell's own bookkeeping, which none of the libraries
// that start before main (the C and C++ runtimes, libgfortran, libgomp,
// OpenBLAS) reads; the first one found lends its place (see below).
constexpr const char* kLenders[] = {"_", "OLDPWD", "SHLVL", "PWD", "HOME", "LOGNAME",
                                    "USER", "MAIL", "SHELL", "TERM", "PATH"};

char** lent_slot = nullptr;    // the environment's entry lent to kSpinCount
char* lender_entry = nullptr;  // what it held, put back before main

char** slot_of(char** envp, const char* name) {
    const std::size_t length = std::strlen(name);
    for (; *envp != nullptr; ++envp)
        if (std::strncmp(*envp, name, length) == 0 && (*envp)[length] == '=') return envp;
    return nullptr;
}

// libgomp reads how its threads wait once, when it is started: before main
// and before any constructor of the program. The executable's preinit array
// runs earlier still, but the C library then resets the environment to the
// array the process started with, so a variable added here (setenv) would be
// gone by the time libgomp looks. So kSpinCount borrows an entry of that
// very array, one that no library reads while starting, and
// give_back_lent_entry() puts the entry back once they all have started.
// With no such entry (an emptied environment), the program is started again
// at once with the variable added; nothing has been started yet, so that
// costs the loading of the libraries once more (some milliseconds). Where
// even that fails (no /proc), libgomp waits its own way.
void bound_spin_before_libraries_start(int /*argc*/, char** argv, char** envp) {
    if (envp == nullptr || slot_of(envp, "OMP_WAIT_POLICY") != nullptr ||
        slot_of(envp, "GOMP_SPINCOUNT") != nullptr)
        return;
    for (const char* lender : kLenders) {
        if (char** slot = slot_of(envp, lender)) {
            lent_slot = slot;
            lender_entry = *slot;
            *slot = const_cast<char*>(kSpinCount);
            return;
        }
    }
    std::size_t count = 0;
    while (envp[count] != nullptr) ++count;
    char** with_spin = static_cast<char**>(std::malloc((count + 2) * sizeof(char*)));
    if (with_spin == nullptr) return;
    std::memcpy(with_spin, envp, count * sizeof(char*));
    with_spin[count] = const_cast<char*>(kSpinCount);
    with_spin[count + 1] = nullptr;
    execve("/proc/self/exe", argv, with_spin);
    std::free(with_spin);
}

// Runs after every library's start-up code (the program's own constructors
// come last) and before main.
[[gnu::constructor]] void give_back_lent_entry() {
    if (lent_slot != nullptr) *lent_slot = lender_entry;
    lent_slot = nullptr;
}

// OpenBLAS maps two work buffers of 128 MiB each as it starts, before main
// (whatever the number of CPUs), and where the address-space limit (ulimit
// -v; some batch systems set it from a job's memory request) leaves no room
// for them, it tries again for ever: the program would spin on a core,
// print nothing and never end. So the room is tried first, with some to
// spare, and a program without it says so and stops. (Measured: with 308 MB
// allowed in all a program starts, with 306 MB it spun.)
constexpr std::size_t kBlasStartBytes = std::size_t(288) << 20;

void refuse_to_start_without_room_for_blas(int /*argc*/, char** argv, char** /*envp*/) {
    rlimit limit{};
    if (getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return;
    void* room = mmap(nullptr, kBlasStartBytes, PROT_NONE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (room != MAP_FAILED) {
        munmap(room, kBlasStartBytes);
        return;
    }
    const char* name = argv != nullptr && argv[0] != nullptr ? argv[0] : "torvel";
    if (const char* slash = std::strrchr(name, '/')) name = slash + 1;
    char line[320];
    const int length = std::snprintf(
        line, sizeof line,
        "%s: the address-space limit (ulimit -v) of %llu MiB leaves no room for the "
        "%zu MiB the linear algebra library maps as it starts; raise it\n",
        name, static_cast<unsigned long long>(limit.rlim_cur >> 20), kBlasStartBytes >> 20);
    if (length > 0) {
        const std::size_t bytes = std::min(std::size_t(length), sizeof line - 1);
        if (write(STDERR_FILENO, line, bytes) < 0) _exit(1);
    }
    _exit(1);
}

// In the executable's preinit array, so that they run before the
// libraries' start-up code; linked into every program that calls
// share_cores().
[[gnu::section(".preinit_array"), gnu::used]] void (*const kEarly[])(int, char**, char**) = {
    refuse_to_start_without_room_for_blas, bound_spin_before_libraries_start};

std::string file_text(const char* path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

void share_cores() {
#ifdef _OPENMP
    if (std::getenv("OMP_NUM_THREADS") != nullptr) return;
    const int granted = cgroup_cpu_limit("/sys/fs/cgroup", file_text("/proc/self/cgroup"));
    if (granted > 0 && granted < omp_get_max_threads()) omp_set_num_threads(granted);
#endif
}

}  // namespace torvel
