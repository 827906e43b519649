#include "util/multi_string.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using Nvk::ClMultiString;
using Strings = std::vector<std::string>;

Strings All(ClMultiString& list) {
    Strings out;
    list.ResetNext();
    while (const char* s = list.Next()) {
        out.emplace_back(s);
    }
    return out;
}

TEST(MultiString, PackedLayoutLengthAndIteration) {
    ClMultiString list;
    EXPECT_EQ(0ul, list.Length());
    EXPECT_EQ(nullptr, list.Next());
    list.Add("ab");
    list.Add("c");
    EXPECT_STREQ("ab", list.Next());
    EXPECT_STREQ("c", list.Next());
    EXPECT_EQ(nullptr, list.Next());
    list.Add("def");  // Add restarts the iteration
    EXPECT_STREQ("ab", list.Next());
    EXPECT_EQ(9ul, list.Length());

    char* buffer = list.Detach();
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(0, std::memcmp("ab\0c\0def\0", buffer, 10));  // and the final zero byte
    list.Attach(buffer);
    list.Attach(buffer);  // its own buffer again: kept, not freed
    EXPECT_EQ((Strings{"ab", "c", "def"}), All(list));
    list.Attach(nullptr);
    EXPECT_TRUE(list.IsEmpty());
}

TEST(MultiString, EmptyStringsAndNullText) {
    // A leading empty string is counted; a later one ends the list.
    ClMultiString list;
    list.Add("");
    EXPECT_EQ(1ul, list.Length());
    list.Add("x");
    list.Add("");
    list.Add(nullptr);  // adds nothing
    list.Add("y");
    EXPECT_EQ(5ul, list.Length());
    ClMultiString copy(list);
    EXPECT_EQ((Strings{"", "x", "y"}), All(copy));
}

TEST(MultiString, CopiesAreIndependent) {
    ClMultiString source;
    source.Add("one");
    ClMultiString empty;
    ClMultiString assigned;
    assigned.Add("old");
    assigned = source;
    source.Add("two");
    EXPECT_EQ((Strings{"one"}), All(assigned));
    auto& alias = assigned;
    assigned = alias;
    EXPECT_EQ(4ul, assigned.Length());
    assigned = empty;  // an empty source empties the target
    EXPECT_TRUE(assigned.IsEmpty());
}

}  // namespace
