#include "core/linked_list.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace {

std::vector<int> g_destroyed;
int g_values[] = {1, 2, 3};

void record_destroy(void* item) {
    g_destroyed.push_back(*static_cast<int*>(item));
}

std::vector<int> items(List* list) {
    std::vector<int> out;
    auto collect = [](ListEntry* entry, void* context) {
        static_cast<std::vector<int>*>(context)->push_back(*static_cast<int*>(entry->item));
    };
    LinkedList.for_each(list, collect, &out);
    return out;
}

struct RemoveCase {
    int removed;  // position in the list 1, 2, 3
    std::vector<int> left;
};

class LinkedListRemove : public ::testing::TestWithParam<RemoveCase> {};

TEST_P(LinkedListRemove, UnlinksWithoutFreeingTheEntry) {
    const RemoveCase& c = GetParam();
    List* list = LinkedList.create(&g_values[0]);
    ListEntry* entries[] = {list->head, LinkedList.add(list, &g_values[1]),
                            LinkedList.add(list, &g_values[2])};
    g_destroyed.clear();
    LinkedList.remove(list, entries[c.removed], record_destroy);
    EXPECT_EQ(g_destroyed, std::vector<int>{c.removed + 1});
    EXPECT_EQ(items(list), c.left);
    EXPECT_EQ(*static_cast<int*>(list->tail->item), c.left.back());
    // Removing the head leaves the new head's prev on the removed entry.
    EXPECT_EQ(list->head->prev, c.removed == 0 ? entries[0] : nullptr);
    free(entries[c.removed]);
    LinkedList.free(list, nullptr);
    EXPECT_EQ(LinkedList.add(nullptr, &g_values[0]), nullptr);  // no list, no crash
}

INSTANTIATE_TEST_SUITE_P(Positions, LinkedListRemove,
                         ::testing::Values(RemoveCase{0, {2, 3}}, RemoveCase{1, {1, 3}},
                                           RemoveCase{2, {1, 2}}));

}  // namespace
