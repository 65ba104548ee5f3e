// Runs a command many times and reports its wall time (median, p90) and the
// peak resident size of its runs, taken from wait4 so nothing is sampled.
//   bench_command RUNS program [arguments...]
// Prints one line: "runs median_ms p90_ms max_rss_kib failures". Output of
// the command goes to /dev/null; a run that exits non-zero is a failure.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

int main(int argc, char** argv) {
    if (argc < 3) {
        fputs("usage: bench_command RUNS program [arguments...]\n", stderr);
        return 2;
    }
    const int runs = atoi(argv[1]);
    std::vector<double> times;
    long max_rss = 0;
    int failures = 0;
    for (int i = 0; i < runs; ++i) {
        const auto start = std::chrono::steady_clock::now();
        const pid_t pid = fork();
        if (pid == 0) {
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, 1);
            dup2(null, 2);
            execv(argv[2], argv + 2);
            _exit(127);
        }
        int status = 0;
        rusage usage{};
        if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) {
            perror("bench_command");
            return 2;
        }
        times.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count());
        // This small process's own pages count until exec; it stays far
        // below the tool's.
        max_rss = std::max(max_rss, usage.ru_maxrss);
        failures += WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
        // Untimed pause: the Transfer Agent serves one client at a time and
        // must notice that this one left before the next run connects.
        usleep(20000);
    }
    std::sort(times.begin(), times.end());
    const auto at = [&](double q) { return times[static_cast<size_t>(q * (times.size() - 1))]; };
    printf("%d %.3f %.3f %ld %d\n", runs, at(0.5), at(0.9), max_rss, failures);
    return 0;
}
