// The services: add (-a), edit (-e), remove (-r) and list (-l).

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli/agent/session.h"
#include "cli/agent/tenants.h"
#include "cli/commands/families.h"
#include "cli/commands/requests.h"
#include "cli/commands/run.h"
#include "cli/preflight/address.h"
#include "cli/preflight/agent_listener.h"
#include "cli/preflight/api_key.h"
#include "cli/preflight/argument_texts.h"

namespace {

// Bytes of the agent's reason shown in a human message.
constexpr size_t REASON_LIMIT = 99;
// Room for any sensible first line of a key file; longer ones fail the
// length check.
constexpr size_t KEY_BUFFER_SIZE = 4096;

// Texts of one of add, edit and remove.
struct ServiceTexts {
    const char* key;
    const char* null_data;
    const char* success;  // null: the answer is only a step (add)
    const char* bad_format;
    const char* check_arguments;
    const char* could_not;  // then the name, "'. " and the reason
};

constexpr ServiceTexts ADD_TEXTS = {
    "added",
    "An error occurred while adding service.\n",
    nullptr,
    "Error while trying to add the service. Internal process responded with a bad formatted "
    "message. Please retry.\n",
    "Error while trying to add the service. Please check the arguments\n",
    "Could not add service '",
};

constexpr ServiceTexts EDIT_TEXTS = {
    "edited",
    "An error occurred while editing service.\n",
    "Service edited successfully.\n",
    "Error while trying to edit the service. Internal process responded with a bad formatted "
    "message. Please retry.\n",
    "Error while trying to edit the service. Please check the arguments\n",
    "Could not edit service '",
};

constexpr ServiceTexts REMOVE_TEXTS = {
    "removed",
    "An error occurred while removing service.\n",
    "Service removed.\n",
    "Error while trying to remove the service. Internal process responded with a bad formatted "
    "message. Please retry.\n",
    "Error while trying to remove the service. Please check the arguments\n",
    "Could not remove service '",
};

// The record of add or edit, for the whole run.
ServiceRequest service_request{};

[[noreturn]] void bad_argument(Message text) {
    finish(Outcome::fail(Failure::bad_argument, std::move(text)));
}

// Address, port and virtual port shared by add and edit.
void parse_service_target(ServiceRequest* request, const char* address,
                          const char* forwarding_port) {
    if (Parsing.parse_ip_address_and_port(address, request->ip_address, &request->port) != 0) {
        bad_argument(BAD_P_MESSAGE);
    }
    if (forwarding_port == nullptr) {
        request->virtual_port = request->port;
        return;
    }
    // Compared as texts: "080" against port 80 passes.
    char port_text[8];
    snprintf(port_text, sizeof port_text, "%d", request->port);
    if (strcmp(port_text, forwarding_port) == 0) {
        bad_argument(SAME_PORTS_MESSAGE);
    }
    if (Parsing.parse_port(forwarding_port, &request->virtual_port) != 0) {
        bad_argument(BAD_F_MESSAGE);
    }
}

// An add's key without -k: the first line of --api-key-file's file, else
// SYLVANE_API_KEY. `origin` says where it came from.
const char* key_from_elsewhere(const Invocation& in, Message* origin) {
    if (in.api_key_file == nullptr) {
        const char* value = getenv(API_KEY_VARIABLE);
        origin->say(API_KEY_VARIABLE);
        return value != nullptr && value[0] != '\0' ? value : nullptr;
    }
    const char* path = in.api_key_file;
    const bool from_input = strcmp(path, "-") == 0;
    if (from_input) {
        origin->say("standard input");
    } else {
        origin->quote(path);
    }
    static char key[KEY_BUFFER_SIZE];
    unsigned mode = 0;
    int result = ApiKey.read_file(path, key, sizeof key, &mode);
    if (result == API_KEY_TOO_OPEN) {
        char mode_text[8];
        snprintf(mode_text, sizeof mode_text, "%04o", mode);
        bad_argument(Message("API key file ")
                         .quote(path)
                         .say(" is accessible by group or others (mode ")
                         .say(mode_text)
                         .say("); refusing to use it. Run: chmod 600 ")
                         .quote(path)
                         .say("\n"));
    }
    if (result == API_KEY_NOT_A_FILE) {
        bad_argument(Message("API key file ")
                         .quote(path)
                         .say(" is not a regular file; refusing to use it.\n"));
    }
    if (result != 0) {
        bad_argument(Message("Could not read the API key from ")
                         .add(*origin)
                         .say(": ")
                         .say(strerror(errno))
                         .say(".\n"));
    }
    return key;
}

}  // namespace

// The key must be 76 bytes long; one that is not names where it came from
// (-k keeps its message).
const char* checked_key(const Invocation& in) {
    Message origin;
    const char* key = in.api_key != nullptr ? in.api_key : key_from_elsewhere(in, &origin);
    if (key != nullptr && strlen(key) == API_KEY_LENGTH) {
        return key;
    }
    if (in.api_key != nullptr || key == nullptr) {
        bad_argument(BAD_K_MESSAGE);
    }
    bad_argument(Message("Bad API key from ")
                     .add(origin)
                     .say(": expected 76 bytes, got ")
                     .say(std::to_string(strlen(key)))
                     .say(".\n"));
}

// The key goes only to a listener of root, of the user, or of the uid the
// user allowed.
void guard_key(const Invocation& in) {
    ListenerCheck found;
    int result = AgentListener.check(TRANSFER_AGENT_PORT, in.agent_uid, &found);
    if (result == AGENT_LISTENER_ERR_UID) {
        bad_argument(Message::format("Bad agent uid %s (%s): expected a numeric user id.\n",
                                     {found.uid_text, found.uid_from}));
    }
    if (result == AGENT_LISTENER_ERR_TABLE) {
        finish(Outcome::fail(Failure::internal,
                             Message::format("Not sending the API key: could not read %s to "
                                             "check who listens on 127.0.0.1:11038 (%s).\n",
                                             {found.table, strerror(found.error)})));
    }
    if (result == AGENT_LISTENER_FOREIGN) {
        const std::string uid = std::to_string(static_cast<uintmax_t>(found.owner));
        Message text(
            "Not sending the API key: the socket listening on 127.0.0.1:11038 belongs "
            "to uid ");
        text.say(uid);
        if (found.owner_name[0] != '\0') {
            text.say(" (").quote(found.owner_name).say(")");
        }
        text.say(
                ", not to root or to you. If that is the Transfer Agent, allow it with "
                "--agent-uid ")
            .say(uid)
            .say(" or ")
            .say(AGENT_UID_VARIABLE)
            .say("=")
            .say(uid)
            .say(".\n");
        finish(Outcome::fail(Failure::untrusted_listener, text,
                             JsonWriter().number("listener_uid", found.owner)));
    }
}

namespace {

// {key: bool, "reason": text}: an accepted add is only a step, its event
// settles it.
void service_answer(const JsonValue* data, const ServiceTexts& texts) {
    if (data == nullptr) {
        fail_about_service(Failure::bad_answer, texts.null_data);
    }
    int done = json_get_bool_value(data, texts.key);
    if (done < 0) {
        fail_about_service(Failure::bad_answer, texts.bad_format);
    }
    if (done == 1 && texts.success != nullptr) {
        finish(Outcome::success(texts.success, about_service()));
    }
    if (done == 1) {
        report(Progress{{}, about_service().text("state", texts.key)});
        return;
    }
    std::optional<std::string> reason = read_text(data, "reason");
    if (!reason) {
        fail_about_service(Failure::refused, texts.check_arguments);
    }
    Message text(texts.could_not);
    text.quote(running().service_typed).say("'. ").quote(*reason, REASON_LIMIT).say("\n");
    fail_about_service(Failure::refused, text, reason->c_str());
}

}  // namespace

void* prepare_add(const Invocation& in) {
    const char* key = checked_key(in);
    ServiceRequest* request = &service_request;
    parse_service_target(request, in.address, in.forwarding_port);
    if (in.clear_services != nullptr) {
        request->clear_services = LinkedList.create(nullptr);
        if (request->clear_services == nullptr) {
            finish(Outcome::fail(Failure::internal, OUT_OF_MEMORY));
        }
        if (Parsing.parse_clear_services(in.clear_services, request->clear_services) != 0) {
            bad_argument(BAD_U_MESSAGE);
        }
    }
    snprintf(request->api_key, sizeof request->api_key, "%s", key);
    snprintf(request->name, sizeof request->name, "%s", in.service_name);
    name_service(request->name);
    guard_key(in);
    return request;
}

void* prepare_edit(const Invocation& in) {
    ServiceRequest* request = &service_request;
    parse_service_target(request, in.address, in.forwarding_port);
    snprintf(request->name, sizeof request->name, "%s", in.service_name);
    name_service(request->name);
    return request;
}

// The builders never write through the name.
void* prepare_named(const Invocation& in) {
    name_service(in.service_name);
    return const_cast<char*>(in.service_name);
}

void add_answer(JsonValue* data) {
    service_answer(data, ADD_TEXTS);
}

// "tenants_event" while adding: the first element naming the service, with
// any onion address and whatever its status, settles the add. An element
// that does not parse ends this event's reading.
void add_event(JsonValue* data) {
    if (data == nullptr) {
        return;
    }
    enum { waiting, added, bad_format } verdict = waiting;
    std::string onion_address;
    TenantsRead read = read_tenants(data, [&](TenantElement element, const Tenant& tenant) {
        if (element == TenantElement::not_json) {
            return TenantWalk::stop;
        }
        if (element == TenantElement::not_a_string || !tenant.name || !tenant.onion_address) {
            verdict = bad_format;
            return TenantWalk::stop;
        }
        if (!is_running_service(tenant.name)) {
            return TenantWalk::next;
        }
        verdict = added;
        onion_address = *tenant.onion_address;
        return TenantWalk::stop;
    });
    if (read == TenantsRead::out_of_memory) {
        finish(Outcome::fail(Failure::internal, OUT_OF_MEMORY));
    }
    if (read == TenantsRead::missing || verdict == bad_format) {
        fail_about_service(Failure::bad_answer, BAD_TENANTS_EVENT);
    }
    if (verdict == added) {
        JsonWriter fields = about_service();
        fields.text("state", "added")
            .text("onion_address", onion_address.empty() ? nullptr : onion_address.c_str());
        finish(Outcome::success("Service added successfully.\n", fields));
    }
}

void edit_answer(JsonValue* data) {
    service_answer(data, EDIT_TEXTS);
}

void remove_answer(JsonValue* data) {
    service_answer(data, REMOVE_TEXTS);
}

void list_answer(JsonValue* data) {
    Outcome listing;
    listing.listing = data;
    finish(listing);
}
