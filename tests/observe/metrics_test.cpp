#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "samples.h"

namespace {

const std::string kUp =
    "# HELP sylvane_agent_up Whether the Transfer Agent answered (1) or not (0).\n"
    "# TYPE sylvane_agent_up gauge\n";
const std::string kTime =
    "# HELP sylvane_agent_response_seconds Time from the first connection attempt to the "
    "Transfer Agent's answer.\n"
    "# TYPE sylvane_agent_response_seconds gauge\n"
    "sylvane_agent_response_seconds 0.004200\n";
const std::string kBuild =
    "# HELP sylvane_build_info Version of sylvane-service that wrote these metrics.\n"
    "# TYPE sylvane_build_info gauge\n"
    "sylvane_build_info{version=\"0.1.0\"} 1\n";
const std::string kServicesHead =
    "# HELP sylvane_services Services declared on the Transfer Agent, by status.\n"
    "# TYPE sylvane_services gauge\n";
const std::string kStatusHead =
    "# HELP sylvane_service_status Status of each service: 1 for its current status, 0 for the "
    "others.\n"
    "# TYPE sylvane_service_status gauge\n";
const std::string kInfoHead =
    "# HELP sylvane_service_info Identity of each service: uuid and onion address.\n"
    "# TYPE sylvane_service_info gauge\n";

std::string counts(int connected, int progress, int disconnected, int error, int other) {
    return kServicesHead + "sylvane_services{status=\"connected\"} " + std::to_string(connected) +
           "\nsylvane_services{status=\"in progress\"} " + std::to_string(progress) +
           "\nsylvane_services{status=\"disconnected\"} " + std::to_string(disconnected) +
           "\nsylvane_services{status=\"error\"} " + std::to_string(error) +
           "\nsylvane_services{status=\"other\"} " + std::to_string(other) + "\n";
}

// The state set of one service: `labels` then each status, 1 on `current`.
std::string states(const std::string& labels, int current) {
    const char* statuses[] = {"connected", "in progress", "disconnected", "error", "other"};
    std::string out;
    for (int i = 0; i < 5; ++i) {
        out += "sylvane_service_status{" + labels + ",status=\"" + statuses[i] + "\"} " +
               (i == current ? "1" : "0") + "\n";
    }
    return out;
}

// Exact text for each state of the agent: families in a fixed order, one
// series per service name, label values escaped and valid UTF-8.
TEST(Metrics, RendersEachStateExactly) {
    const struct {
        const char* name;
        MetricsSnapshot snapshot;
        std::string text;
    } cases[] = {
        {"agent down", agent_down(), kUp + "sylvane_agent_up 0\n" + kBuild},
        {"no services", no_services(),
         kUp + "sylvane_agent_up 1\n" + kTime + counts(0, 0, 0, 0, 0) + kStatusHead + kInfoHead +
             kBuild},
        {"every status", every_status(),
         kUp + "sylvane_agent_up 1\n" + kTime + counts(1, 1, 1, 2, 1) + kStatusHead +
             states("service=\"web\"", 0) + states("service=\"db\"", 1) +
             states("service=\"mail\"", 2) + states("service=\"ftp\"", 3) +
             states("service=\"old\"", 4) + kInfoHead +
             "sylvane_service_info{service=\"web\",uuid=\"u1\",onion_address=\"w.onion\"} 1\n"
             "sylvane_service_info{service=\"db\",uuid=\"u2\",onion_address=\"\"} 1\n"
             "sylvane_service_info{service=\"mail\",uuid=\"u3\",onion_address=\"\"} 1\n"
             "sylvane_service_info{service=\"ftp\",uuid=\"u4\",onion_address=\"\"} 1\n"
             "sylvane_service_info{service=\"old\",uuid=\"u5\",onion_address=\"\"} 1\n"
             "# HELP sylvane_proxy_enabled Whether the Transfer Agent's outbound proxy is "
             "enabled.\n# TYPE sylvane_proxy_enabled gauge\nsylvane_proxy_enabled 1\n"
             "# HELP sylvane_proxy_info The Transfer Agent's outbound proxy: address and type.\n"
             "# TYPE sylvane_proxy_info gauge\n"
             "sylvane_proxy_info{address=\"192.168.1.10:1080\",type=\"SOCKS5\"} 1\n" +
             kBuild},
        {"hostile names", hostile_names(),
         kUp + "sylvane_agent_up 1\n" + kTime + counts(3, 0, 0, 1, 0) + kStatusHead +
             states(R"(service="a\"b\\c\nd")", 0) +
             states(R"(service="} 1\nsylvane_agent_up 0")", 3) +
             states("service=\"z\xEF\xBF\xBD\"", 0) + kInfoHead +
             R"(sylvane_service_info{service="a\"b\\c\nd",uuid="u\"1",onion_address="x\\"} 1)"
             "\n"
             R"(sylvane_service_info{service="} 1\nsylvane_agent_up 0",uuid=")"
             "\xEF\xBF\xBD\xEF\xBF\xBD\",onion_address=\"\xEF\xBF\xBD]0;t\xEF\xBF\xBD\"} 1\n"
             "sylvane_service_info{service=\"z\xEF\xBF\xBD\",uuid=\"\",onion_address=\"\"} 1\n" +
             kBuild},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(render_metrics(c.snapshot), c.text) << c.name;
    }
}

std::string read_all(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// The file is replaced whole, world-readable whatever the umask, with no
// temporary left; a folder that cannot take it leaves the old file as it
// was and names the step and the reason.
TEST(MetricsFile, ReplacesWholeOrNotAtAll) {
    char pattern[] = "/tmp/sylv-metrics-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string folder = pattern;
    const std::string path = folder + "/sylvane.prom";
    char error[256] = "";
    const mode_t umask_before = umask(077);
    ASSERT_EQ(write_metrics_file(path.c_str(), "old\n", error, sizeof error), 0) << error;
    ASSERT_EQ(write_metrics_file(path.c_str(), "new\n", error, sizeof error), 0) << error;
    umask(umask_before);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    EXPECT_EQ(read_all(path), "new\n");
    chmod(folder.c_str(), 0555);
    const bool root = geteuid() == 0;  // root writes anyway
    if (!root) {
        EXPECT_EQ(write_metrics_file(path.c_str(), "lost\n", error, sizeof error), -1);
        EXPECT_EQ(std::string(error),
                  "Could not create a temporary file beside " + path + ": Permission denied");
        EXPECT_EQ(read_all(path), "new\n");
    }
    chmod(folder.c_str(), 0755);
    EXPECT_EQ(write_metrics_file("/dev/full/x.prom", "x", error, sizeof error), -1);
    EXPECT_EQ(write_metrics_file((folder + "/").c_str(), "x", error, sizeof error), -1);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);
    std::filesystem::remove_all(folder);
}

}  // namespace
