// Times commands side by side: runs each of them in turn (A B A B ...) so
// that a change in the machine's load falls on all of them alike, and
// reports each one's wall time (median, p90), the peak resident size of its
// runs and its median CPU time (user + system), taken from wait4 so nothing
// is sampled. CPU time shows small start-up effects that the machine's load
// blurs in wall time.
//   bench_command RUNS program [arguments...] [-- program [arguments...]]...
// Prints one line per command, in the order given:
// "runs median_ms p90_ms max_rss_kib failures cpu_median_ms". Output of the
// commands goes to /dev/null; a run that exits non-zero is a failure.
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
    std::vector<double> cpu_times;
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
    const auto ms = [](const timeval& t) { return t.tv_sec * 1e3 + t.tv_usec / 1e3; };
    command.cpu_times.push_back(ms(usage.ru_utime) + ms(usage.ru_stime));
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
    const auto at = [](std::vector<double>& values, double q) {
        std::sort(values.begin(), values.end());
        return values[static_cast<size_t>(q * static_cast<double>(values.size() - 1))];
    };
    for (Command& command : commands) {
        printf("%d %.3f %.3f %ld %d %.3f\n", runs, at(command.times, 0.5), at(command.times, 0.9),
               command.max_rss, command.failures, at(command.cpu_times, 0.5));
    }
    return 0;
}
