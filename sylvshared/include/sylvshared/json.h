/* JSON value interface: every JSON document the tool builds or reads goes
 * through these functions over an opaque handle. They are provided by the
 * sylvshared library, with C linkage.
 *
 * Ownership: a handle returned by json_parse, json_create_json_object,
 * json_create_json_list or json_get_json_value belongs to the caller, who
 * releases it with json_free_value. Adding a child or a text copies it.
 * Object members keep their insertion order when serialised.
 *
 * No function prints, exits or throws; failures are null or negative. */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct JsonValue JsonValue;

/* Tag of a string element in a list read with json_get_list_value. */
#define JSON_LIST_ITEM_STRING 1
/* Tag of any other element (its text is null). */
#define JSON_LIST_ITEM_OTHER 0

typedef struct JsonListItem {
    int32_t type; /* JSON_LIST_ITEM_STRING or JSON_LIST_ITEM_OTHER */
    char* text;   /* the string's text for a string element, else null */
} JsonListItem;

/* New value from NUL-terminated text, or null when it is not valid JSON,
 * nests deeper than 128 levels, holds more than 262,144 values or objects
 * too large to check for repeated keys quickly. Each byte sequence inside a
 * string that is not UTF-8 reads as U+FFFD. On failure errno is ENOMEM when
 * memory ran out, EINVAL otherwise. */
JsonValue* json_parse(const char* text);
/* json_parse for a text that stays unchanged while the value is used: long
 * strings are read where they lie in the text and decoded only when asked
 * for. The value, and every value and list taken from it, must be released
 * before the text is changed or freed. */
JsonValue* json_parse_in_place(const char* text);
/* Writes the compact text and its NUL into buffer. Returns its length, or a
 * negative value (buffer left empty) when it does not fit or on bad input.
 * Each byte sequence of a string that is not UTF-8 is written as U+FFFD. */
int json_serialize(const JsonValue* value, char* buffer, size_t size);
JsonValue* json_create_json_object(void);
JsonValue* json_create_json_list(void);
/* Member adders: 0, or -1 when the object is null or not an object, or key or
 * text is null. */
int json_add_string_child(JsonValue* object, const char* key, const char* text);
int json_add_int_child(JsonValue* object, const char* key, int value);
int json_add_boolean_child(JsonValue* object, const char* key, int value);
/* Adds a copy of child under key; the caller still owns child. */
int json_add_child_to_object(JsonValue* object, const char* key, const JsonValue* child);
/* List appenders: 0, or -1 on null or non-list arguments. */
int json_add_string_to_list(JsonValue* list, const char* text);
int json_add_to_list(JsonValue* list, const JsonValue* value);
/* Copies the string member (a boolean reads as "true" or "false") into
 * buffer, cut to at most size-1 bytes (never inside a UTF-8 character) and
 * NUL-terminated. Returns the length copied (0 or more), or -1 when value is
 * null, the member is missing or of another type; the buffer is then left as
 * it was. */
int json_get_string_value(const JsonValue* value, const char* key, char* buffer, size_t size);
/* The integer member, or -1 when missing, not an integer or outside int. */
int json_get_int_value(const JsonValue* value, const char* key);
/* 1 true, 0 false, -1 missing or not a boolean (the string "true" is -1). */
int json_get_bool_value(const JsonValue* value, const char* key);
/* Array of *count element records for a list member, or null (count left
 * unchanged) when missing or not a list. Release with json_free_list_value.
 * An empty list gives a non-null array with count 0. */
JsonListItem** json_get_list_value(const JsonValue* value, const char* key, int* count);
/* New value holding a copy of the member, or null when missing. */
JsonValue* json_get_json_value(const JsonValue* value, const char* key);
/* 1 when the object has the member, 0 otherwise. */
int json_is_key_present(const JsonValue* value, const char* key);
void json_free_value(JsonValue* value);
/* Releases an array from json_get_list_value; accepts null. */
void json_free_list_value(JsonListItem** items, int count);

/* A JSON text written straight into the caller's buffer, for a request that
 * needs no tree: the same bytes json_serialize writes for the same value.
 * The buffer always ends in NUL. A part that would not fit (with the NUL
 * after it) is not written and marks the text failed; nothing is written
 * after that. */
typedef struct JsonText {
    char* buffer;
    size_t size;
    size_t length; /* bytes written, without the NUL */
    int failed;
} JsonText;

void json_text_start(JsonText* text, char* buffer, size_t size);
/* Appends `raw` as it is (punctuation, keys known to need no escape). */
void json_text_raw(JsonText* text, const char* raw);
/* Appends `value` as a quoted JSON string, escaped as json_serialize
 * escapes it (bytes that are not UTF-8 as U+FFFD). */
void json_text_string(JsonText* text, const char* value);
void json_text_int(JsonText* text, int64_t value);
/* Drops what was written after `length`, a length the text had while it
 * had not failed, and so any failure since. */
void json_text_cut(JsonText* text, size_t length);

#ifdef __cplusplus
}
#endif
