// Micro-benchmarks of the hot paths: reading frames from the receive queue,
// building masked frames, and decoding a "tenants" list as the listing does.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "core/dynamic_buffer.h"
#include "sylvshared/json.h"
#include "sylvshared/tenants.h"
#include "websocket/websocket.h"

namespace {

// Stream of frames fed to read_frame the way recv() would, in reads of at
// most what it asks for.
struct Stream {
    std::string bytes;
    size_t offset = 0;
};
Stream* stream = nullptr;

int64_t stream_read(networkConnection* connection, int64_t max_size) {
    const size_t count =
        std::min(static_cast<size_t>(max_size), stream->bytes.size() - stream->offset);
    if (count == 0) {
        return -1;
    }
    DynamicBuffer.append(connection->receive_queue, stream->bytes.data() + stream->offset, count);
    stream->offset += count;
    return static_cast<int64_t>(count);
}

void count_message(networkConnection* /*connection*/, const uint8_t* /*bytes*/, uint64_t length,
                   int /*is_binary*/) {
    benchmark::DoNotOptimize(length);
}

void BM_ReadFrames(benchmark::State& state) {
    const auto payload_size = static_cast<uint64_t>(state.range(0));
    const std::string payload(payload_size, 'p');
    uint64_t frame_size = 0;
    uint8_t* frame = websocket_build_frame(reinterpret_cast<const uint8_t*>(payload.data()),
                                           payload_size, WS_OPCODE_TEXT, true, false, &frame_size);
    Stream input;
    for (int i = 0; i < 64; ++i) {
        input.bytes.append(reinterpret_cast<const char*>(frame), frame_size);
    }
    free(frame);
    networkConnection connection{};
    connection.receive_queue = DynamicBuffer.create(1);
    websocketPeerDescriptor* descriptor = WebSocket.create_peer_descriptor();
    stream = &input;
    for (auto _ : state) {
        input.offset = 0;
        WebSocket.reset_frame_state(descriptor);
        DynamicBuffer.clear(connection.receive_queue);
        while (input.offset < input.bytes.size()) {
            WebSocket.read_frame(&connection, descriptor, false, stream_read, nullptr,
                                 count_message);
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.bytes.size()));
    WebSocket.destroy_peer_descriptor(descriptor);
    DynamicBuffer.free(connection.receive_queue);
}
BENCHMARK(BM_ReadFrames)->Arg(100)->Arg(4000)->Arg(15000)->Arg(1 << 20);

void BM_BuildMaskedFrame(benchmark::State& state) {
    const auto payload_size = static_cast<uint64_t>(state.range(0));
    const std::string payload(payload_size, 'p');
    for (auto _ : state) {
        uint64_t frame_size = 0;
        uint8_t* frame =
            websocket_build_frame(reinterpret_cast<const uint8_t*>(payload.data()), payload_size,
                                  WS_OPCODE_TEXT, true, true, &frame_size);
        benchmark::DoNotOptimize(frame);
        free(frame);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * payload_size));
}
BENCHMARK(BM_BuildMaskedFrame)->Arg(60)->Arg(126)->Arg(1000)->Arg(15000);

// The data of a get_tenants answer: a list of strings, each a service's JSON.
std::string tenants_text(int count) {
    JsonValue* list = json_create_json_list();
    for (int i = 0; i < count; ++i) {
        const std::string item =
            "{\"tenant_name\": \"service" + std::to_string(i) +
            "\", \"status\": \"connected\", \"ip_address\": \"10.0.0.1\", \"port\": 8080, "
            "\"virtual_port\": 80, \"uuid\": \"0b9a4c1e-6a53-4a3c-9a38-3f0a36d0f2f1\", "
            "\"onion_address\": "
            "\"abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyzabcd.onion\"}";
        json_add_string_to_list(list, item.c_str());
    }
    JsonValue* data = json_create_json_object();
    json_add_child_to_object(data, "tenants", list);
    json_free_value(list);
    std::string text(64 * 1024 * 1024, '\0');
    const int length = json_serialize(data, text.data(), text.size());
    json_free_value(data);
    text.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return text;
}

// Parse, then every element parsed and its seven fields read, as -l does.
void BM_DecodeTenants(benchmark::State& state) {
    const std::string text = tenants_text(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        JsonValue* data = json_parse(text.c_str());
        int count = -1;
        JsonListItem** items = json_get_list_value(data, "tenants", &count);
        for (int i = 0; i < count; ++i) {
            JsonValue* item = json_parse(items[i]->text);
            char buffer[256];
            for (const char* key :
                 {"tenant_name", "status", "ip_address", "uuid", "onion_address"}) {
                benchmark::DoNotOptimize(json_get_string_value(item, key, buffer, sizeof buffer));
            }
            benchmark::DoNotOptimize(json_get_int_value(item, "port"));
            benchmark::DoNotOptimize(json_get_int_value(item, "virtual_port"));
            json_free_value(item);
        }
        json_free_list_value(items, count);
        json_free_value(data);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_DecodeTenants)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

// The same reading through walk_tenants: one arena for every service, the
// fields picked in one pass over each one's members.
void BM_WalkTenants(benchmark::State& state) {
    const std::string text = tenants_text(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        JsonValue* data = json_parse(text.c_str());
        sylvshared::walk_tenants(
            data, [](int, sylvshared::TenantElement, const sylvshared::TenantFields* fields) {
                benchmark::DoNotOptimize(fields);
                return true;
            });
        json_free_value(data);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_WalkTenants)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
