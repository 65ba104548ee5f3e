#include "sylvshared/tenants.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using sylvshared::TenantElement;
using sylvshared::TenantFields;
using sylvshared::TenantText;

// A JSON string literal holding `inner`.
std::string quoted(const std::string& inner) {
    std::string out = "\"";
    for (const char c : inner) {
        out += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    }
    return out + "\"";
}

// List elements as they come on the wire, one per reading rule.
const std::vector<std::string> kElements = {
    quoted(R"({"tenant_name":"web1","uuid":"u-1","status":"enabled","ip_address":"10.0.0.1",)"
           R"("port":80,"virtual_port":8080,"onion_address":"abc.onion","ack":true})"),
    quoted(R"({"synchronized":true,"reason":false,"ack":"true","port":"80"})"),
    quoted(R"({"tenant_name":"first","tenant_name":"last","port":1,"port":99999999999})"),
    quoted(R"({"tenant_name":"caf\u00e9 \ud83d\ude00","status":"x\"y","virtual_port":-3})"),
    quoted("{\"tenant_name\":\"bad \xff utf-8\",\"ack\":false}"),
    quoted(R"({"tenant_name":"nul \u0000 inside","uuid":"u"})"),
    quoted("{\"tenant_name\":\"del \x7f\"}"),
    quoted(R"({"tenant_name":"back\\slash"})"),
    quoted(R"({"tenant_name":{"nested":[1,2]},"uuid":null,"port":1.5})"),
    quoted(R"([1,2,3])"),
    // Read without the parser when plain, by the parser when not: the same.
    quoted(
        R"({"tenant_name":"a","tenant_name":{"x":1},"port":80,"port":"x","ack":true,"ack":null})"),
    quoted(R"( { "tenant_name" : "sp" , "port" : -0 , "virtual_port" : 123456789012345678 } )"),
    quoted(
        R"({"port":1234567890123456789012,"virtual_port":1e3,"uuid":-5.0,"status":[],"ack":9999999999999999999})"),
    quoted(R"({"a":[[[{"b":[true,false,null,"s",{}]}]]],"tenant_name":"deep","ack":false})"),
    quoted(R"({"a":)" + std::string(40, '[') + std::string(40, ']') + R"(,"tenant_name":"d40"})"),
    quoted([] {
        std::string many = "{";
        for (int i = 0; i < 1500; ++i) {
            many += "\"k" + std::to_string(i) + "\":" + std::to_string(i) + ",";
        }
        return many + R"("tenant_name":"many"})";
    }()),
    quoted(R"({"port":0123})"),
    quoted(R"({"tenant_name":"a"} x)"),
    quoted(R"({"tenant_name":"a",})"),
    quoted(R"({"port":80 "uuid":"x"})"),
    R"("{\"tenant_name\":\"tab\there\"}")",          // a raw tab in a string
    quoted(R"({"tenant_name":)"),                    // not JSON
    R"("{\"tenant_name\":\"cut\"}\u0000{garbage")",  // read up to the NUL
    "42",                                            // not a string
    quoted(""),
};

// The answer holding kElements; padded, each string element ends in spaces
// (which change no reading), long enough for a parse in place to leave it
// escaped where it lies.
std::string answer(bool padded = false) {
    std::string text = R"({"tenants":[)";
    for (size_t i = 0; i < kElements.size(); ++i) {
        std::string element = kElements[i];
        if (padded && element[0] == '"') {
            element.insert(element.size() - 1, 64, ' ');
        }
        text += (i > 0 ? "," : "") + element;
    }
    return text + "]}";
}

const char* const kTextKeys[] = {"tenant_name",   "uuid",         "status", "ip_address",
                                 "onion_address", "synchronized", "reason"};

const TenantText& text_field(const TenantFields& fields, int which) {
    const TenantText* all[] = {&fields.name,       &fields.uuid,          &fields.status,
                               &fields.ip_address, &fields.onion_address, &fields.synchronized,
                               &fields.reason};
    return *all[which];
}

// Every field reads as the json_* getters read the element's own document,
// whole and cut to a size that falls inside a UTF-8 character.
void expect_same_as_getters(const char* text, TenantElement element, const TenantFields* fields) {
    JsonValue* value = json_parse(text);
    ASSERT_EQ(element, value != nullptr ? TenantElement::service : TenantElement::not_json) << text;
    if (value == nullptr) {
        EXPECT_EQ(fields, nullptr);
        return;
    }
    for (int i = 0; i < 7; ++i) {
        const std::string_view whole = text_field(*fields, i).text;
        EXPECT_FALSE(fields->without_nul && whole.find('\0') != std::string_view::npos) << text;
        // Shown unescaped when printable: nothing there may need it.
        EXPECT_FALSE(
            fields->printable &&
            !std::all_of(whole.begin(), whole.end(),
                         [](char c) { return c >= 0x20 && c < 0x7F && c != '"' && c != '\\'; }))
            << text;
        for (const size_t size : {255, 6}) {
            char walked[256] = {};
            char got[256] = {};
            EXPECT_EQ(sylvshared::copy_field(text_field(*fields, i), walked, size),
                      json_get_string_value(value, kTextKeys[i], got, size))
                << text << " " << kTextKeys[i];
            EXPECT_STREQ(walked, got) << text << " " << kTextKeys[i];
        }
    }
    EXPECT_EQ(fields->port.value, json_get_int_value(value, "port")) << text;
    EXPECT_EQ(fields->port.present, json_is_key_present(value, "port") == 1) << text;
    EXPECT_EQ(fields->virtual_port.value, json_get_int_value(value, "virtual_port")) << text;
    EXPECT_EQ(fields->virtual_port.present, json_is_key_present(value, "virtual_port") == 1);
    EXPECT_EQ(fields->ack, json_get_bool_value(value, "ack")) << text;
    json_free_value(value);
}

// Parsed from the wire (whole, and in place), and built by the caller: the
// same reading as the list getter, element by element.
TEST(WalkTenants, ReadsEveryElementAsTheGettersDo) {
    JsonValue* parsed = json_parse(answer().c_str());
    ASSERT_NE(parsed, nullptr);
    const std::string wire = answer(true);
    JsonValue* in_place = json_parse_in_place(wire.c_str());
    ASSERT_NE(in_place, nullptr);
    JsonValue* built = json_create_json_object();
    for (JsonValue* data : {parsed, in_place, built}) {
        int count = -1;
        JsonListItem** items =
            json_get_list_value(data == in_place ? in_place : parsed, "tenants", &count);
        ASSERT_EQ(count, static_cast<int>(kElements.size()));
        if (data == built) {  // the same list, built
            JsonValue* list = json_create_json_list();
            for (int i = 0; i < count; ++i) {
                if (items[i]->type == JSON_LIST_ITEM_STRING) {
                    json_add_string_to_list(list, items[i]->text);
                } else {
                    JsonValue* number = json_parse("42");
                    json_add_to_list(list, number);
                    json_free_value(number);
                }
            }
            json_add_child_to_object(built, "tenants", list);
            json_free_value(list);
        }
        int visits = 0;
        const int result = sylvshared::walk_tenants(
            data, [&](int index, TenantElement element, const TenantFields* fields) {
                EXPECT_EQ(index, visits++);
                if (items[index]->type != JSON_LIST_ITEM_STRING) {
                    EXPECT_EQ(element, TenantElement::not_string);
                } else {
                    expect_same_as_getters(items[index]->text, element, fields);
                }
                return true;
            });
        EXPECT_EQ(result, sylvshared::TENANTS_WALKED);
        EXPECT_EQ(visits, count);
        json_free_list_value(items, count);
    }
    json_free_value(parsed);
    json_free_value(in_place);
    json_free_value(built);
}

TEST(WalkTenants, StopsWhenAskedAndTellsAMissingList) {
    JsonValue* parsed = json_parse(answer().c_str());
    int visits = 0;
    EXPECT_EQ(sylvshared::walk_tenants(
                  parsed, [&](int, TenantElement, const TenantFields*) { return ++visits < 2; }),
              sylvshared::TENANTS_WALKED);
    EXPECT_EQ(visits, 2);
    auto never = [](int, TenantElement, const TenantFields*) {
        ADD_FAILURE() << "visited";
        return true;
    };
    JsonValue* not_list = json_parse(R"({"tenants":"[]"})");
    const JsonValue* none = nullptr;
    for (const JsonValue* data : {none, static_cast<const JsonValue*>(not_list)}) {
        EXPECT_EQ(sylvshared::walk_tenants(data, never), sylvshared::TENANTS_NO_LIST);
    }
    json_free_value(not_list);
    json_free_value(parsed);
}

}  // namespace
