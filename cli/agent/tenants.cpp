// Reading "tenants" lists, one element at a time, on sylvshared's
// walk_tenants: no document, copy or allocation per element.

#include "cli/agent/tenants.h"

#include <cstring>
#include <exception>
#include <type_traits>

#include "sylvshared/tenants.h"

namespace {

constexpr size_t FIRST_READ = 64;
// A UTF-8 sequence is at most 4 bytes: a read that came this close to the
// buffer's end may have been cut.
constexpr size_t LONGEST_SEQUENCE = 4;

}  // namespace

// A text member whole, however long: the read is repeated with a larger
// buffer while it may have been cut.
std::optional<std::string> read_text(const JsonValue* object, const char* key) {
    std::string buffer(FIRST_READ, '\0');
    for (;;) {
        int length = json_get_string_value(object, key, buffer.data(), buffer.size());
        if (length < 0) {
            return std::nullopt;
        }
        if (static_cast<size_t>(length) + LONGEST_SEQUENCE < buffer.size()) {
            buffer.resize(strlen(buffer.c_str()));  // C text: up to a NUL
            return buffer;
        }
        buffer.assign(buffer.size() * 4, '\0');
    }
}

namespace {

// A text field as the getters' C text reads it: up to an embedded NUL,
// which a field read as it lies (`WithoutNul`) has none of.
template <bool WithoutNul>
std::optional<std::string_view> text_of(const sylvshared::TenantText& field) {
    if (!field.present) {
        return std::nullopt;
    }
    if constexpr (!WithoutNul) {
        if (const void* nul = memchr(field.text.data(), '\0', field.text.size())) {
            return field.text.substr(
                0, static_cast<size_t>(static_cast<const char*>(nul) - field.text.data()));
        }
    }
    return field.text;
}

// The element as views into its fields, texts cut at a NUL unless known
// free of one: every field, or the few a plan compares.
template <typename View, bool WithoutNul>
View view_of(const sylvshared::TenantFields& fields) {
    View view;
    view.name = text_of<WithoutNul>(fields.name);
    if constexpr (std::is_same_v<View, ServiceView>) {
        view.status = text_of<WithoutNul>(fields.status).value_or(std::string_view());
        view.ip_address = text_of<WithoutNul>(fields.ip_address).value_or(std::string_view());
    } else {
        view.status = text_of<WithoutNul>(fields.status);
        view.ip_address = text_of<WithoutNul>(fields.ip_address);
        view.uuid = text_of<WithoutNul>(fields.uuid);
        view.onion_address = text_of<WithoutNul>(fields.onion_address);
        view.reason = text_of<WithoutNul>(fields.reason);
        view.synchronized = text_of<WithoutNul>(fields.synchronized);
        view.has_port = fields.port.present;
        view.has_virtual_port = fields.virtual_port.present;
        view.ack = fields.ack;
        view.printable = fields.printable;
    }
    view.port = fields.port.value;
    view.virtual_port = fields.virtual_port.value;
    return view;
}

TenantElement element_of(sylvshared::TenantElement element) {
    switch (element) {
        case sylvshared::TenantElement::service:
            return TenantElement::tenant;
        case sylvshared::TenantElement::not_string:
            return TenantElement::not_a_string;
        case sylvshared::TenantElement::not_json:
            break;
    }
    return TenantElement::not_json;
}

// One walk under either visitor: an exception from the visitor must not
// cross walk_tenants (noexcept), so it is held and thrown again after it.
template <typename View, typename Show>
TenantsRead walk(const JsonValue* data, Show show) {
    std::exception_ptr thrown;
    const View none;
    const int result = sylvshared::walk_tenants(
        data, [&](int, sylvshared::TenantElement element, const sylvshared::TenantFields* fields) {
            try {
                const TenantElement read = element_of(element);
                const View view = fields == nullptr     ? none
                                  : fields->without_nul ? view_of<View, true>(*fields)
                                                        : view_of<View, false>(*fields);
                return show(read, view) == TenantWalk::next;
            } catch (...) {
                thrown = std::current_exception();
                return false;
            }
        });
    if (thrown) {
        std::rethrow_exception(thrown);
    }
    if (result == sylvshared::TENANTS_NO_MEMORY) {
        return TenantsRead::out_of_memory;
    }
    return result == sylvshared::TENANTS_NO_LIST ? TenantsRead::missing : TenantsRead::walked;
}

// Copies a view into a kept text, reusing its room: after the first few
// elements, reading one allocates nothing.
void keep(std::optional<std::string>& kept, const std::optional<std::string_view>& seen) {
    if (!seen) {
        kept.reset();
    } else if (kept) {
        kept->assign(*seen);
    } else {
        kept.emplace(*seen);
    }
}

void fill(Tenant& tenant, const TenantView& view) {
    keep(tenant.name, view.name);
    keep(tenant.status, view.status);
    keep(tenant.ip_address, view.ip_address);
    keep(tenant.uuid, view.uuid);
    keep(tenant.onion_address, view.onion_address);
    keep(tenant.reason, view.reason);
    keep(tenant.synchronized, view.synchronized);
    tenant.has_port = view.has_port;
    tenant.has_virtual_port = view.has_virtual_port;
    tenant.port = view.port;
    tenant.virtual_port = view.virtual_port;
    tenant.ack = view.ack;
}

}  // namespace

TenantsRead read_tenant_views(const JsonValue* data, TenantViewVisitor visit, void* context) {
    return walk<TenantView>(data, [&](TenantElement element, const TenantView& view) {
        return visit(element, view, context);
    });
}

TenantsRead read_service_views(const JsonValue* data, ServiceViewVisitor visit, void* context) {
    return walk<ServiceView>(data, [&](TenantElement element, const ServiceView& view) {
        return visit(element, view, context);
    });
}

// One Tenant for the whole walk, refilled for each element.
TenantsRead read_tenants(const JsonValue* data, TenantVisitor visit, void* context) {
    Tenant tenant;
    return walk<TenantView>(data, [&](TenantElement element, const TenantView& view) {
        fill(tenant, view);
        return visit(element, tenant, context);
    });
}
