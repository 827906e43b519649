#include "util/multi_string.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using Nvk::ClMultiString;

std::vector<std::string> Strings(ClMultiString& list) {
    std::vector<std::string> out;
    list.ResetNext();
    while (const char* s = list.Next()) {
        out.emplace_back(s);
    }
    return out;
}

TEST(MultiString, NewListIsEmpty) {
    ClMultiString list;
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(0ul, list.Length());
    EXPECT_EQ(nullptr, list.Next());
    EXPECT_EQ(nullptr, list.Detach());
}

TEST(MultiString, PackedLayoutLengthAndIteration) {
    ClMultiString list;
    list.Add("ab");
    list.Add("c");
    EXPECT_FALSE(list.IsEmpty());
    EXPECT_EQ(5ul, list.Length());

    EXPECT_STREQ("ab", list.Next());
    EXPECT_STREQ("c", list.Next());
    EXPECT_EQ(nullptr, list.Next());
    EXPECT_EQ(nullptr, list.Next());

    list.ResetNext();
    EXPECT_STREQ("ab", list.Next());
    list.Add("def");  // Add restarts the iteration
    EXPECT_EQ((std::vector<std::string>{"ab", "c", "def"}), Strings(list));

    char* buffer = list.Detach();
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(nullptr, list.Next());
    const char expected[] = {'a', 'b', 0, 'c', 0, 'd', 'e', 'f', 0, 0};
    EXPECT_EQ(0, std::memcmp(expected, buffer, sizeof expected));

    ClMultiString other;
    other.Attach(buffer);
    EXPECT_EQ(9ul, other.Length());
    EXPECT_EQ((std::vector<std::string>{"ab", "c", "def"}), Strings(other));
    other.Attach(other.Detach());
    other.Attach(nullptr);
    EXPECT_TRUE(other.IsEmpty());
}

TEST(MultiString, EmptyStringsAndNullText) {
    // A leading empty string is counted; any later one ends the list.
    ClMultiString list;
    list.Add("");
    EXPECT_EQ(1ul, list.Length());
    list.Add("x");
    EXPECT_EQ(3ul, list.Length());
    EXPECT_EQ((std::vector<std::string>{"", "x"}), Strings(list));
    list.Add("");
    list.Add("y");
    EXPECT_EQ((std::vector<std::string>{"", "x", "y"}), Strings(list));

    list.Add(nullptr);  // adds nothing
    EXPECT_EQ(5ul, list.Length());

    ClMultiString copy(list);
    EXPECT_EQ((std::vector<std::string>{"", "x", "y"}), Strings(copy));
}

TEST(MultiString, CopiesAreIndependent) {
    ClMultiString source;
    source.Add("one");
    source.Add("two");

    ClMultiString copy(source);
    ClMultiString assigned;
    assigned.Add("old");
    assigned = source;
    source.Add("three");
    copy.Empty();
    EXPECT_TRUE(copy.IsEmpty());

    EXPECT_EQ((std::vector<std::string>{"one", "two", "three"}), Strings(source));
    EXPECT_EQ((std::vector<std::string>{"one", "two"}), Strings(assigned));

    auto& alias = assigned;
    assigned = alias;
    EXPECT_EQ(8ul, assigned.Length());

    assigned = copy;  // an empty source empties the target
    EXPECT_TRUE(assigned.IsEmpty());
    ClMultiString fromEmpty(copy);
    EXPECT_TRUE(fromEmpty.IsEmpty());
}

}  // namespace
