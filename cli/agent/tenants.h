// The one reader of the Transfer Agent's "tenants" lists (answers of
// get_tenants, connect_tenants, disconnect_tenants and every
// "tenants_event"): JSON lists whose elements are strings, each holding one
// serialized JSON object. The list is walked once (sylvshared's
// walk_tenants): each element is shown either as views into the reader's
// own storage (TenantView, for the listings) or as a Tenant value (for
// callers that keep what they read). The human texts' length limits are the
// human printer's business.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "sylvshared/json.h"

// The key naming a service, in answers, events and requests.
constexpr const char* TENANT_NAME_KEY = "tenant_name";

// One element: each text member as the agent sent it (a boolean reads as
// "true" or "false"; text stops at an embedded NUL), absent when missing or
// of another type.
struct Tenant {
    std::optional<std::string> name;
    std::optional<std::string> status;
    std::optional<std::string> ip_address;
    std::optional<std::string> uuid;
    std::optional<std::string> onion_address;
    std::optional<std::string> reason;
    std::optional<std::string> synchronized;
    bool has_port = false;  // "port" is present, whatever its type
    bool has_virtual_port = false;
    int port = -1;  // the integer, or -1 when missing or not one
    int virtual_port = -1;
    int ack = -1;  // 1 true, 0 false, -1 missing or not a boolean
};

// The same element as views, valid only during the visit that shows it.
struct TenantView {
    std::optional<std::string_view> name;
    std::optional<std::string_view> status;
    std::optional<std::string_view> ip_address;
    std::optional<std::string_view> uuid;
    std::optional<std::string_view> onion_address;
    std::optional<std::string_view> reason;
    std::optional<std::string_view> synchronized;
    bool has_port = false;
    bool has_virtual_port = false;
    int port = -1;
    int virtual_port = -1;
    int ack = -1;
    // Every text is printable ASCII without a quote or a backslash: shown
    // as it is, on a terminal or in JSON.
    bool printable = false;
};

// The fields of an element a plan compares, as views valid only during
// the visit: the name as in TenantView, other texts empty when missing or
// of another type, ports -1 then. Cheaper to show than a whole TenantView.
struct ServiceView {
    std::optional<std::string_view> name;
    std::string_view status;
    std::string_view ip_address;
    int port = -1;
    int virtual_port = -1;
};

// A text member of any answer, read whole (see Tenant); absent when missing
// or of another type. Throws std::bad_alloc when out of memory.
std::optional<std::string> read_text(const JsonValue* object, const char* key);

// What an element of the list is.
enum class TenantElement {
    tenant,        // a string holding a JSON object: read into the Tenant
    not_a_string,  // a null, a number, an object...
    not_json,      // a string that does not parse
};

enum class TenantWalk { next, stop };

enum class TenantsRead {
    walked,         // every element was shown to the visitor, or it stopped
    missing,        // null data, or no "tenants" list
    out_of_memory,  // the list or an element could not be read for want of memory
};

using TenantVisitor = TenantWalk (*)(TenantElement element, const Tenant& tenant, void* context);
using TenantViewVisitor = TenantWalk (*)(TenantElement element, const TenantView& tenant,
                                         void* context);
using ServiceViewVisitor = TenantWalk (*)(TenantElement element, const ServiceView& service,
                                          void* context);

// Shows each element of data's "tenants" list to `visit`, in order, until it
// says stop. The Tenant or TenantView is empty unless the element is a
// tenant. An exception thrown by `visit` ends the walk and is thrown again
// from here; the Tenant form throws std::bad_alloc when out of memory.
TenantsRead read_tenants(const JsonValue* data, TenantVisitor visit, void* context);
TenantsRead read_tenant_views(const JsonValue* data, TenantViewVisitor visit, void* context);
TenantsRead read_service_views(const JsonValue* data, ServiceViewVisitor visit, void* context);

// Calls the reader `read` with any callable `visit(TenantElement, const
// View&)` in place of a function and its context.
template <typename View, typename Visit>
TenantsRead read_calling(TenantsRead (*read)(const JsonValue*,
                                             TenantWalk (*)(TenantElement, const View&, void*),
                                             void*),
                         const JsonValue* data, Visit& visit) {
    return read(
        data,
        [](TenantElement element, const View& view, void* context) {
            return (*static_cast<Visit*>(context))(element, view);
        },
        &visit);
}

// The readers above with any callable `visit(TenantElement, const View&)`.
template <typename Visit>
TenantsRead read_tenants(const JsonValue* data, Visit&& visit) {
    return read_calling<Tenant>(read_tenants, data, visit);
}

template <typename Visit>
TenantsRead read_tenant_views(const JsonValue* data, Visit&& visit) {
    return read_calling<TenantView>(read_tenant_views, data, visit);
}

template <typename Visit>
TenantsRead read_service_views(const JsonValue* data, Visit&& visit) {
    return read_calling<ServiceView>(read_service_views, data, visit);
}
