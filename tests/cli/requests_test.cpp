// Request builders: the exact "data" text each command puts on the wire.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "cli/commands/requests.h"
#include "core/linked_list.h"
#include "ipc/ipc_config.h"

namespace {

// What a builder writes as the request's "data".
std::string written(ExecutionCallback builder, void* argument) {
    char buffer[2048];
    JsonText text;
    json_text_start(&text, buffer, sizeof buffer);
    const bool has_data = builder(argument, &text);
    return !has_data || text.failed ? "<no data>" : std::string(buffer, text.length);
}

ServiceRequest service(const char* name) {
    ServiceRequest request{};
    snprintf(request.name, sizeof request.name, "%s", name);
    snprintf(request.ip_address, sizeof request.ip_address, "10.0.0.1");
    request.port = 443;
    request.virtual_port = 8443;
    memset(request.api_key, 'k', API_KEY_LENGTH);
    return request;
}

TEST(RequestBuilders, AddCopiesClearServicesInOrderAndReleasesThem) {
    ServiceRequest request = service("web1");
    request.clear_services = LinkedList.create(strdup("a.net"));
    LinkedList.add(request.clear_services, strdup("10.1.1.1"));
    EXPECT_EQ(written(build_add_request, &request),
              R"({"method":"api_key","value":")" + std::string(API_KEY_LENGTH, 'k') +
                  R"(","name":"web1","ip_address":"10.0.0.1","port":443,"virtual_port":8443,)"
                  R"("clear_services":["a.net","10.1.1.1"]})");
    EXPECT_EQ(request.clear_services, nullptr);
}

struct BuilderCase {
    const char* label;
    ExecutionCallback builder;
    void* argument;
    std::string expected;
};

class EachBuilder : public testing::TestWithParam<BuilderCase> {};

int enable_on = 1;
int enable_off = 0;
ServiceRequest edited = service("web3");
ServiceRequest added = service("web2");
ProxyRequest proxy = {"1.2.3.4", 3128, "SOCKS5"};
TraceabilityConfig trace_console = {"console", nullptr, nullptr, 0, nullptr, 0, nullptr};
TraceabilityConfig trace_file = {"file", "/var/log", "t_%d", 4096, nullptr, 0, nullptr};
TraceabilityConfig trace_syslog = {"syslog", nullptr, nullptr, 0, "10.0.0.9", 514, "UDP"};
TraceabilityConfig trace_file_bare = {"file", nullptr, nullptr, 0, nullptr, 0, nullptr};
char name[] = "web4";
char quoted_name[] = "w\"e\\b";

TEST_P(EachBuilder, WritesItsDataExactly) {
    const BuilderCase& c = GetParam();
    EXPECT_EQ(written(c.builder, c.argument), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, EachBuilder,
    testing::Values(
        BuilderCase{"add_without_clear_services", build_add_request, &added,
                    R"({"method":"api_key","value":")" + std::string(API_KEY_LENGTH, 'k') +
                        R"(","name":"web2","ip_address":"10.0.0.1","port":443,)"
                        R"("virtual_port":8443,"clear_services":[]})"},
        BuilderCase{"edit", build_edit_request, &edited,
                    R"({"tenant_name":"web3","ip_address":"10.0.0.1","port":443,)"
                    R"("virtual_port":8443})"},
        BuilderCase{"remove", build_remove_request, name, R"({"tenant_name":"web4"})"},
        BuilderCase{"remove_escaped", build_remove_request, quoted_name,
                    R"({"tenant_name":"w\"e\\b"})"},
        BuilderCase{"empty", build_empty_request, nullptr, "{}"},
        BuilderCase{"connect", build_connect_request, name, R"({"tenants":["web4"]})"},
        BuilderCase{"disconnect", build_disconnect_request, name, R"({"tenants":["web4"]})"},
        BuilderCase{"flag_on", build_enable_flag_request, &enable_on, R"({"enable":true})"},
        BuilderCase{"flag_off", build_enable_flag_request, &enable_off, R"({"enable":false})"},
        BuilderCase{"save_proxy", build_save_proxy_request, &proxy,
                    R"({"ip_address":"1.2.3.4","port":3128,"proxy_type":"SOCKS5"})"},
        BuilderCase{"console", build_traceability_request, &trace_console,
                    R"({"target":"console"})"},
        BuilderCase{"file", build_traceability_request, &trace_file,
                    R"({"target":"file","path":"/var/log","filename_format":"t_%d",)"
                    R"("max_size":4096})"},
        BuilderCase{"file_without_names", build_traceability_request, &trace_file_bare,
                    R"({"target":"file","max_size":0})"},
        BuilderCase{"syslog", build_traceability_request, &trace_syslog,
                    R"({"target":"syslog","address":"10.0.0.9","protocol":"UDP","port":514})"}),
    [](const testing::TestParamInfo<BuilderCase>& param_info) { return param_info.param.label; });

}  // namespace
