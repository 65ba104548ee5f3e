// The JSON printer: docs/json.md's objects, one per line on standard
// output, each {"version": 1, ...}; the last of a run has "ok". Standard
// error stays empty.

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "cli/agent/tenants.h"
#include "cli/desired_state/render.h"
#include "cli/output/output.h"
#include "cli/output/printers.h"

namespace {

constexpr const char* BAD_LISTING =
    "Error while listing the services. Server responded with bad formatted answer";

// What a run prints when it cannot even build its own object.
constexpr const char* OUT_OF_MEMORY_OBJECT =
    "{\"version\": 1, \"ok\": false, \"error\": \"internal\", \"message\": \"Unable to allocate "
    "memory.\"}\n";

// {"version": 1, <fields>} on one line. A writer that ran out of memory ends
// the run as out of memory.
void emit(const JsonWriter& fields) {
    JsonWriter line;
    line.number("version", 1).merge(fields);
    std::string text = line.object();
    if (text.empty()) {
        finish_out_of_memory();
    }
    text += '\n';
    write_checked(stdout, text);
    flush_checked(stdout);
}

// The human text on one line: its lines joined with a blank, without the
// newlines and blanks that only a terminal needs at either end.
std::string one_line(const std::string& text) {
    std::string line;
    size_t start = text.find_first_not_of("\n ");
    size_t end = text.find_last_not_of("\n ");
    if (start == std::string::npos) {
        return line;
    }
    for (char c : std::string_view(text).substr(start, end - start + 1)) {
        line += c == '\n' ? ' ' : c;
    }
    return line;
}

void add_text(JsonWriter& fields, const char* key, const std::optional<std::string>& value) {
    if (value) {
        fields.text(key, value->c_str());
    }
}

// The listing's text in one block grown by realloc: a block of megabytes
// grows by moving its pages, so it is never held twice. Throws
// std::bad_alloc when memory runs out.
class ListingText {
public:
    ListingText() = default;
    ListingText(const ListingText&) = delete;
    ListingText& operator=(const ListingText&) = delete;
    ~ListingText() { free(data_); }

    void add(std::string_view part) {
        if (part.empty()) {
            return;  // an empty view may have no data to copy from
        }
        if (capacity_ - size_ < part.size()) {
            grow(part.size());
        }
        memcpy(data_ + size_, part.data(), part.size());
        size_ += part.size();
    }
    // `"key": ` after a first member, `, "key": ` after the others.
    void key(std::string_view name) {
        const std::string_view lead = first_member_ ? "\"" : ", \"";
        room(lead.size() + name.size() + 3);
        copy(lead);
        copy(name);
        copy("\": ");
        first_member_ = false;
    }
    // A text with nothing to escape is copied at once, the rest part by part.
    void text(std::string_view name, const std::optional<std::string_view>& value) {
        if (!value) {
            return;
        }
        key(name);
        if (json_plain_prefix(*value) == value->size()) {
            room(value->size() + 2);
            data_[size_++] = '"';
            copy(*value);
            data_[size_++] = '"';
            return;
        }
        write_json_string(*value, [this](std::string_view part) { add(part); });
    }
    void number(std::string_view name, int value) {
        char digits[16];
        const auto written = std::to_chars(digits, digits + sizeof digits, value);
        key(name);
        add(std::string_view(digits, static_cast<size_t>(written.ptr - digits)));
    }
    void open_object() {
        add(services_ == 0 ? "{" : ", {");
        first_member_ = true;
        services_++;
    }
    std::string_view text() const { return std::string_view(data_, size_); }

    // A service whose texts need no escaping (TenantView::printable): room
    // made once for its longest text, each part then copied as it is.
    void printable_service(const TenantView& tenant) {
        const std::optional<std::string_view>* texts[] = {
            &tenant.name, &tenant.uuid, &tenant.status, &tenant.ip_address, &tenant.onion_address};
        size_t longest = kServiceFrame;
        for (const auto* text : texts) {
            longest += text->has_value() ? (*text)->size() : 0;
        }
        room(longest);
        at_ = data_ + size_;
        put(services_++ == 0 ? "{" : ", {");
        first_member_ = true;
        put_text("\"service\": \"", tenant.name);
        put_text("\"uuid\": \"", tenant.uuid);
        put_text("\"status\": \"", tenant.status);
        put_text("\"ip_address\": \"", tenant.ip_address);
        if (tenant.has_port) {
            put_number("\"port\": ", tenant.port);
        }
        if (tenant.has_virtual_port) {
            put_number("\"virtual_port\": ", tenant.virtual_port);
        }
        put_text("\"onion_address\": \"", tenant.onion_address);
        put("}");
        size_ = static_cast<size_t>(at_ - data_);
    }

private:
    char* data_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
    size_t services_ = 0;
    bool first_member_ = true;

    // Bytes of a service beyond its texts, at most: braces, separators,
    // keys, quotes and two numbers.
    static constexpr size_t kServiceFrame = 160;
    char* at_ = nullptr;  // where printable_service writes next

    void put(std::string_view part) {
        memcpy(at_, part.data(), part.size());
        at_ += part.size();
    }
    // `, ` unless first, then the key (with the value's opening quote).
    void put_key(std::string_view key) {
        if (!first_member_) {
            put(", ");
        }
        first_member_ = false;
        put(key);
    }
    void put_text(std::string_view key, const std::optional<std::string_view>& value) {
        if (value) {
            put_key(key);
            if (!value->empty()) {
                put(*value);
            }
            *at_++ = '"';
        }
    }
    void put_number(std::string_view key, int value) {
        put_key(key);
        at_ = std::to_chars(at_, at_ + 16, value).ptr;
    }

    // At least `more` bytes free after the text.
    void room(size_t more) {
        if (capacity_ - size_ < more) {
            grow(more);
        }
    }
    // Appends `part` into room already made (an empty view may have no data).
    void copy(std::string_view part) {
        if (part.empty()) {
            return;
        }
        memcpy(data_ + size_, part.data(), part.size());
        size_ += part.size();
    }
    void grow(size_t more) {
        const size_t wanted = std::max(size_ + more, std::max<size_t>(2 * capacity_, 65536));
        auto* grown = static_cast<char*>(realloc(data_, wanted));
        if (grown == nullptr) {
            throw std::bad_alloc();
        }
        data_ = grown;
        capacity_ = wanted;
    }
};

// One service of the listing, with the agent's own field values.
void add_service(ListingText& out, const TenantView& tenant) {
    if (tenant.printable) {
        out.printable_service(tenant);
        return;
    }
    out.open_object();
    out.text("service", tenant.name);
    out.text("uuid", tenant.uuid);
    out.text("status", tenant.status);
    out.text("ip_address", tenant.ip_address);
    if (tenant.has_port) {
        out.number("port", tenant.port);
    }
    if (tenant.has_virtual_port) {
        out.number("virtual_port", tenant.virtual_port);
    }
    out.text("onion_address", tenant.onion_address);
    out.add("}");
}

int failure_object(Failure failure, const std::string& message, const JsonWriter& extra) {
    JsonWriter fields;
    fields.boolean("ok", false)
        .text("error", failure_code(failure))
        .text("message", one_line(message).c_str())
        .merge(extra);
    emit(fields);
    return json_status(failure);
}

// {"ok": true, "services": [...]}, written once the whole list has been
// read: an element that is not a readable object makes it a bad answer.
int print_listing(const JsonValue* data) {
    ListingText services;
    bool readable = true;
    TenantsRead read = TenantsRead::walked;
    try {
        services.add("{\"version\": 1, \"ok\": true, \"services\": [");
        read = read_tenant_views(data, [&](TenantElement element, const TenantView& tenant) {
            if (element != TenantElement::tenant) {
                readable = false;
                return TenantWalk::stop;
            }
            add_service(services, tenant);
            return TenantWalk::next;
        });
        services.add("]}\n");
    } catch (const std::bad_alloc&) {
        finish_out_of_memory();
    }
    if (read == TenantsRead::out_of_memory) {
        finish_out_of_memory();
    }
    if (!readable) {
        return failure_object(Failure::bad_answer, BAD_LISTING, JsonWriter());
    }
    write_checked(stdout, services.text());
    return 0;
}

int print_proxy(const ProxySettings& proxy) {
    JsonWriter object;
    object.text("type", proxy.type.c_str())
        .text("ip_address", proxy.ip_address.c_str())
        .number("port", proxy.port)
        .boolean("enabled", proxy.enabled);
    emit(JsonWriter().boolean("ok", true).value("proxy", object.object()));
    return 0;
}

JsonWriter event_fields(const Tenant& tenant) {
    JsonWriter fields;
    add_text(fields, "service", tenant.name);
    add_text(fields, "status", tenant.status);
    if (tenant.synchronized == "true" || tenant.synchronized == "false") {
        fields.boolean("synchronized", tenant.synchronized == "true");
    }
    add_text(fields, "reason", tenant.reason);
    add_text(fields, "onion_address", tenant.onion_address);
    return fields;
}

void progress(const Progress& step) {
    if (step.event != nullptr) {
        emit(event_fields(*step.event));
    } else if (!step.fields.empty()) {
        emit(step.fields);
    }
}

void json_notice(const char*) {}

int final(const Outcome& outcome, int) {
    if (outcome.listing != nullptr) {
        return print_listing(outcome.listing);
    }
    if (outcome.proxy != nullptr) {
        return print_proxy(*outcome.proxy);
    }
    if (outcome.plan != nullptr) {
        std::string object = render_plan_json(*outcome.plan);
        if (object.empty()) {
            finish_out_of_memory();
        }
        write_checked(stdout, object + "\n");
        return json_status(outcome.failure);
    }
    if (failure_code(outcome.failure) != nullptr) {
        return failure_object(outcome.failure, outcome.text.raw(), outcome.fields);
    }
    emit(JsonWriter().boolean("ok", true).merge(outcome.fields));
    return json_status(outcome.failure);
}

int out_of_memory() {
    fputs(OUT_OF_MEMORY_OBJECT, stdout);
    return json_status(Failure::internal);
}

}  // namespace

const Printer JsonPrinter = {
    .progress = progress,
    .notice = json_notice,
    .final = final,
    .out_of_memory = out_of_memory,
};
