// The human printer: the texts the tool has always written, byte for byte,
// with untrusted words escaped (message.h). Successes go to standard output,
// failures to standard error. The fields read from the agent are shown cut
// to the limits the human texts have always had (the name excepted).

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string>

#include "cli/agent/tenants.h"
#include "cli/desired_state/render.h"
#include "cli/output/output.h"
#include "cli/output/printers.h"
#include "sylvshared/tenants.h"

namespace {

// Bytes shown of each field read from the agent.
constexpr size_t STATUS_LIMIT = 254;
constexpr size_t IP_ADDRESS_LIMIT = 39;
constexpr size_t UUID_LIMIT = 36;
constexpr size_t ONION_ADDRESS_LIMIT = 62;
constexpr size_t REASON_LIMIT = 99;
constexpr size_t PROXY_TYPE_LIMIT = 19;
constexpr size_t PROXY_IP_ADDRESS_LIMIT = 16;

constexpr const char* NO_SERVICES = "No registered services yet.\n";
constexpr const char* OUT_OF_MEMORY = "Unable to allocate memory.\n";

// The listing goes out in blocks of LISTING_BLOCK bytes, not in one write
// per line: a list of thousands of services is written in a few calls.
constexpr size_t LISTING_BLOCK = 65536;

// A run prints one listing. Its block is static: only the pages a listing
// fills are ever touched, and the heap is not grown for a few lines.
char listing_block[LISTING_BLOCK];

class ListingWriter {
public:
    ListingWriter() : end_(listing_block) {}
    // The tool's own words.
    void text(std::string_view part) {
        if (part.size() > room()) {
            flush_block();
            if (part.size() > LISTING_BLOCK) {
                write_checked(stdout, part);
                return;
            }
        }
        memcpy(end_, part.data(), part.size());
        end_ += part.size();
    }
    // An untrusted field, cut to `limit` bytes (0: whole) and escaped unless
    // known `printable` (ASCII: cut anywhere, shown as it is).
    void field(std::string_view value, size_t limit, bool printable) {
        if (printable) {
            text(value.substr(0, limit != 0 ? limit : value.size()));
            return;
        }
        if (limit != 0) {
            value = value.substr(0, sylvshared::utf8_cut(value, limit));
        }
        if (terminal_safe_as_is(value)) {
            text(value);
            return;
        }
        std::string escaped;
        append_terminal_safe(escaped, value);
        text(escaped);
    }
    void number(int value) {
        char digits[16];
        const auto result = std::to_chars(digits, digits + sizeof digits, value);
        text(std::string_view(digits, static_cast<size_t>(result.ptr - digits)));
    }
    void flush() {
        flush_block();
        flush_checked(stdout);
    }

private:
    char* end_;  // end of the bytes held in listing_block

    size_t room() const { return LISTING_BLOCK - static_cast<size_t>(end_ - listing_block); }
    void flush_block() {
        write_checked(stdout,
                      std::string_view(listing_block, static_cast<size_t>(end_ - listing_block)));
        end_ = listing_block;
    }
};

std::string_view or_empty(const std::optional<std::string>& text) {
    return text ? std::string_view(*text) : std::string_view();
}

std::string_view or_empty(const std::optional<std::string_view>& text) {
    return text.value_or(std::string_view());
}

const char* listed_status(std::string_view status) {
    status = status.substr(0, sylvshared::utf8_cut(status, STATUS_LIMIT));
    if (status == "connected") {
        return "Enabled";
    }
    if (status == "in progress") {
        return "Enabling in progress";
    }
    if (status == "error") {
        return "Error";
    }
    return "Disabled";
}

// One block of the listing; missing fields show as empty or "Unknown".
void print_tenant(const TenantView& tenant, ListingWriter& out) {
    const char* shown_status = listed_status(or_empty(tenant.status));
    std::string_view ip_address = or_empty(tenant.ip_address);
    out.text("----------------------------------------\nService:\t");
    const bool printable = tenant.printable;
    out.field(or_empty(tenant.name), 0, printable);
    out.text("\nUuid:\t\t");
    out.field(or_empty(tenant.uuid), UUID_LIMIT, printable);
    out.text("\nIP address:\t");
    if (ip_address.empty()) {
        out.text("Unknown");
    } else {
        out.field(ip_address, IP_ADDRESS_LIMIT, printable);
    }
    out.text("\nPort:\t\t");
    if (tenant.port < 1) {
        out.text("Unknown");
    } else {
        out.number(tenant.port);
    }
    out.text("\nVirtual port:\t");
    if (tenant.virtual_port == tenant.port) {
        out.text("Not set");
    } else {
        out.number(tenant.virtual_port);
    }
    out.text("\nStatus:\t\t");
    out.text(shown_status);
    out.text("\n");
    std::string_view onion = or_empty(tenant.onion_address);
    if (!onion.empty() && strcmp(shown_status, "Enabled") == 0) {
        out.text("Onion address:\t");
        out.field(onion, ONION_ADDRESS_LIMIT, printable);
        out.text("\n");
    }
}

// Elements that are not strings are skipped; the first that is not JSON
// ends the listing there.
void print_listing(const JsonValue* data) {
    ListingWriter out;
    int elements = 0;
    TenantsRead read =
        read_tenant_views(data, [&](TenantElement element, const TenantView& tenant) {
            elements++;
            if (element == TenantElement::not_json) {
                return TenantWalk::stop;
            }
            if (element == TenantElement::tenant) {
                print_tenant(tenant, out);
            }
            return TenantWalk::next;
        });
    if (read == TenantsRead::out_of_memory) {
        finish_out_of_memory();
    }
    if (elements == 0) {
        out.text(NO_SERVICES);
    }
    out.flush();
}

void print_proxy(const ProxySettings& proxy) {
    Message block("---------- Proxy configuration ----------\nIP address:\t");
    block.quote(proxy.ip_address, PROXY_IP_ADDRESS_LIMIT).say("\nPort:\t\t");
    block.say(std::to_string(proxy.port)).say("\nType:\t\t").quote(proxy.type, PROXY_TYPE_LIMIT);
    block.say(proxy.enabled ? "\nStatus:\t\tEnabled\n" : "\nStatus:\t\tDisabled\n");
    write_checked(stdout, block.shown());
}

// "web: connected (synchronized)", "db: error: <reason>", "web: in progress".
void print_event(const Tenant& tenant) {
    Message line;
    line.quote(or_empty(tenant.name)).say(": ").quote(or_empty(tenant.status), STATUS_LIMIT);
    if (tenant.reason && !tenant.reason->empty()) {
        line.say(": ").quote(*tenant.reason, REASON_LIMIT);
    }
    if (tenant.synchronized == "true") {
        line.say(" (synchronized)");
    } else if (tenant.synchronized == "false") {
        line.say(" (not synchronized)");
    }
    write_checked(stdout, line.say("\n").shown());
}

void progress(const Progress& step) {
    if (step.event != nullptr) {
        print_event(*step.event);
    } else {
        write_checked(stdout, step.text.shown());
    }
    flush_checked(stdout);
}

void human_notice(const char* text) {
    write_checked(stderr, text);
}

int final(const Outcome& outcome, int human_failure_status) {
    if (outcome.human) {
        write_checked(stderr, outcome.human->err.shown());
        write_checked(stdout, outcome.human->out.shown());
        return outcome.human->status;
    }
    if (outcome.listing != nullptr) {
        print_listing(outcome.listing);
        return 0;
    }
    if (outcome.proxy != nullptr) {
        print_proxy(*outcome.proxy);
        return 0;
    }
    if (outcome.plan != nullptr) {
        const std::string text = render_plan_text(*outcome.plan);
        if (text.empty()) {
            finish_out_of_memory();
        }
        write_checked(stdout, text);
        return human_status(outcome.failure);
    }
    if (failure_code(outcome.failure) == nullptr) {
        write_checked(stdout, outcome.text.shown());
        return human_status(outcome.failure);
    }
    write_checked(stderr, outcome.text.shown());
    return human_failure_status != 0 ? human_failure_status : human_status(outcome.failure);
}

int out_of_memory() {
    fputs(OUT_OF_MEMORY, stderr);
    return human_status(Failure::internal);
}

}  // namespace

const Printer HumanPrinter = {
    .progress = progress,
    .notice = human_notice,
    .final = final,
    .out_of_memory = out_of_memory,
};
