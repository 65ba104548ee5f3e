// The two ways an outcome starts.

#include "cli/output/outcome.h"

#include <utility>

Outcome Outcome::success(Message text, JsonWriter fields) {
    Outcome outcome;
    outcome.text = std::move(text);
    outcome.fields = std::move(fields);
    return outcome;
}

Outcome Outcome::fail(Failure failure, Message text, JsonWriter fields) {
    Outcome outcome;
    outcome.failure = failure;
    outcome.text = std::move(text);
    outcome.fields = std::move(fields);
    return outcome;
}
