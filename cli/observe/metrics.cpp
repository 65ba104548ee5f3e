#include "cli/observe/metrics.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <unordered_set>

#include "core/utf8.h"

namespace {

constexpr size_t STATUS_COUNT = std::size(METRICS_STATUSES);
constexpr size_t OTHER_STATUS = STATUS_COUNT - 1;
constexpr char REPLACEMENT[] = "\xEF\xBF\xBD";  // U+FFFD

// Index of `status` in METRICS_STATUSES, OTHER_STATUS when not one of them.
size_t status_index(const std::string& status) {
    for (size_t i = 0; i < OTHER_STATUS; ++i) {
        if (status == METRICS_STATUSES[i]) {
            return i;
        }
    }
    return OTHER_STATUS;
}

// `text` as a quoted label value: backslash, quote and line feed escaped,
// each byte that does not belong to UTF-8 and each other character a
// terminal would act on replaced by U+FFFD (--metrics may print to one).
std::string label_value(const std::string& text) {
    std::string out = "\"";
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t i = 0; i < text.size();) {
        uint32_t code_point = 0;
        const size_t sequence = utf8_sequence(bytes + i, text.size() - i, &code_point);
        if (sequence == 0) {
            out += REPLACEMENT;
            ++i;
            continue;
        }
        if (code_point == '\\' || code_point == '"') {
            out += '\\';
            out += static_cast<char>(code_point);
        } else if (code_point == '\n') {
            out += "\\n";
        } else if (utf8_is_control(code_point)) {
            out += REPLACEMENT;
        } else {
            out.append(text, i, sequence);
        }
        i += sequence;
    }
    return out + "\"";
}

// The HELP and TYPE lines of a gauge family.
void family(std::string& out, const char* name, const char* help) {
    out += "# HELP ";
    out += name;
    out += ' ';
    out += help;
    out += "\n# TYPE ";
    out += name;
    out += " gauge\n";
}

// One sample: name, labels (already written as `a="x",b="y"`, or empty), value.
void sample(std::string& out, const char* name, const std::string& labels, const char* value) {
    out += name;
    if (!labels.empty()) {
        out += '{' + labels + '}';
    }
    out += ' ';
    out += value;
    out += '\n';
}

void services_by_status(std::string& out, const std::vector<MetricsService>& services) {
    size_t counts[STATUS_COUNT] = {};
    for (const MetricsService& service : services) {
        ++counts[status_index(service.status)];
    }
    family(out, "sylvane_services", "Services declared on the Transfer Agent, by status.");
    for (size_t i = 0; i < STATUS_COUNT; ++i) {
        sample(out, "sylvane_services", "status=" + label_value(METRICS_STATUSES[i]),
               std::to_string(counts[i]).c_str());
    }
}

// The state set and the info series, one set per service name as written
// (two names that differ only in replaced characters share one).
void per_service(std::string& out, const std::vector<MetricsService>& services) {
    std::unordered_set<std::string> written;
    std::string states;
    std::string infos;
    for (const MetricsService& service : services) {
        const std::string name = "service=" + label_value(service.name);
        if (!written.insert(name).second) {
            continue;
        }
        const size_t current = status_index(service.status);
        for (size_t i = 0; i < STATUS_COUNT; ++i) {
            sample(states, "sylvane_service_status",
                   name + ",status=" + label_value(METRICS_STATUSES[i]), i == current ? "1" : "0");
        }
        sample(infos, "sylvane_service_info",
               name + ",uuid=" + label_value(service.uuid) +
                   ",onion_address=" + label_value(service.onion_address),
               "1");
    }
    family(out, "sylvane_service_status",
           "Status of each service: 1 for its current status, 0 for the others.");
    out += states;
    family(out, "sylvane_service_info", "Identity of each service: uuid and onion address.");
    out += infos;
}

void proxy(std::string& out, const MetricsProxy& proxy) {
    family(out, "sylvane_proxy_enabled", "Whether the Transfer Agent's outbound proxy is enabled.");
    sample(out, "sylvane_proxy_enabled", "", proxy.enabled ? "1" : "0");
    family(out, "sylvane_proxy_info", "The Transfer Agent's outbound proxy: address and type.");
    sample(out, "sylvane_proxy_info",
           "address=" + label_value(proxy.address) + ",type=" + label_value(proxy.type), "1");
}

std::string render(const MetricsSnapshot& snapshot) {
    std::string out;
    family(out, "sylvane_agent_up", "Whether the Transfer Agent answered (1) or not (0).");
    sample(out, "sylvane_agent_up", "", snapshot.agent_up ? "1" : "0");
    if (snapshot.agent_up) {
        char seconds[64];
        snprintf(seconds, sizeof seconds, "%.6f", snapshot.response_seconds);
        family(out, "sylvane_agent_response_seconds",
               "Time from the first connection attempt to the Transfer Agent's answer.");
        sample(out, "sylvane_agent_response_seconds", "", seconds);
    }
    if (snapshot.services_known) {
        services_by_status(out, snapshot.services);
        per_service(out, snapshot.services);
    }
    if (snapshot.proxy_known) {
        proxy(out, snapshot.proxy);
    }
    family(out, "sylvane_build_info", "Version of sylvane-service that wrote these metrics.");
    sample(out, "sylvane_build_info", "version=" + label_value(snapshot.version), "1");
    return out;
}

// Fills `error` with "<what> <path>: <errno's text>" and returns -1.
int failed(char* error, size_t size, const char* what, const char* path, int error_number) {
    snprintf(error, size, "%s %s: %s", what, path, strerror(error_number));
    return -1;
}

// Writes all of `text` to `fd`, through interruptions and short writes.
bool write_all(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        done += static_cast<size_t>(written);
    }
    return true;
}

// Fills the temporary file open as `fd`, and closes it.
// 0, or the errno of the step that failed.
int fill_temporary(int fd, const std::string& text) {
    int error_number = 0;
    if (fchmod(fd, 0644) != 0 || !write_all(fd, text) || fsync(fd) != 0) {
        error_number = errno != 0 ? errno : EIO;
    }
    if (close(fd) != 0 && error_number == 0) {
        error_number = errno;
    }
    return error_number;
}

}  // namespace

std::string render_metrics(const MetricsSnapshot& snapshot) noexcept {
    try {
        return render(snapshot);
    } catch (const std::exception&) {
        return std::string();
    }
}

int write_metrics_file(const char* path, const std::string& text, char* error,
                       size_t error_size) noexcept {
    const char* slash = strrchr(path, '/');
    const char* base = slash == nullptr ? path : slash + 1;
    if (base[0] == '\0') {
        return failed(error, error_size, "Could not write", path, EISDIR);
    }
    // The folder part keeps its slash: "dir/.base.XXXXXX", or ".base.XXXXXX".
    const int folder_length = slash == nullptr ? 0 : static_cast<int>(slash - path + 1);
    char temporary[PATH_MAX];
    const int length =
        snprintf(temporary, sizeof temporary, "%.*s.%s.XXXXXX", folder_length, path, base);
    if (length < 0 || static_cast<size_t>(length) >= sizeof temporary) {
        return failed(error, error_size, "Could not write", path, ENAMETOOLONG);
    }
    errno = 0;
    const int fd = mkostemp(temporary, O_CLOEXEC);
    if (fd < 0) {
        return failed(error, error_size, "Could not create a temporary file beside", path, errno);
    }
    const int fill_error = fill_temporary(fd, text);
    if (fill_error != 0) {
        unlink(temporary);
        return failed(error, error_size, "Could not write", temporary, fill_error);
    }
    if (rename(temporary, path) != 0) {
        const int rename_error = errno;
        unlink(temporary);
        return failed(error, error_size, "Could not replace", path, rename_error);
    }
    return 0;
}
