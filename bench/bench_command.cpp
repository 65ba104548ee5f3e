// Times commands side by side: runs each of them in turn (A B A B ...) so
// that a change in the machine's load falls on all of them alike, and
// reports each one's wall time (median, p90) and the peak resident size of
// its runs, taken from wait4 so nothing is sampled.
//   bench_command RUNS program [arguments...] [-- program [arguments...]]...
// Prints one line per command, in the order given:
// "runs median_ms p90_ms max_rss_kib failures". Output of the commands goes
// to /dev/null; a run that exits non-zero is a failure.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

struct Command {
    std::vector<char*> argv;  // null-terminated
    std::vector<double> times;
    long max_rss = 0;
    int failures = 0;
};

// One run of `command`, timed from fork to reaping.
bool run(Command& command) {
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        execv(command.argv[0], command.argv.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) {
        perror("bench_command");
        return false;
    }
    command.times.push_back(
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
            .count());
    // This small process's own pages count until exec; they stay far below
    // any command's.
    command.max_rss = std::max(command.max_rss, usage.ru_maxrss);
    command.failures += WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        fputs("usage: bench_command RUNS program [arguments...] [-- program ...]...\n", stderr);
        return 2;
    }
    const int runs = atoi(argv[1]);
    std::vector<Command> commands(1);
    for (int i = 2; i < argc; ++i) {
        if (strcmp(argv[i], "--") == 0) {
            commands.emplace_back();
        } else {
            commands.back().argv.push_back(argv[i]);
        }
    }
    for (Command& command : commands) {
        if (command.argv.empty()) {
            fputs("bench_command: empty command\n", stderr);
            return 2;
        }
        command.argv.push_back(nullptr);
    }
    for (int i = 0; i < runs; ++i) {
        for (Command& command : commands) {
            if (!run(command)) {
                return 2;
            }
            // Untimed pause: the agent serves one client at a time and
            // should have seen this one leave before the next connects.
            usleep(2000);
        }
    }
    for (Command& command : commands) {
        std::vector<double>& times = command.times;
        std::sort(times.begin(), times.end());
        const auto at = [&](double q) {
            return times[static_cast<size_t>(q * static_cast<double>(times.size() - 1))];
        };
        printf("%d %.3f %.3f %ld %d\n", runs, at(0.5), at(0.9), command.max_rss, command.failures);
    }
    return 0;
}
