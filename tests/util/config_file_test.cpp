#include "util/config_file.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

using Nvk::CXConfigFile;
using Nvk::CXConfigSection;

CXConfigFile Parse(const std::string& text) {
    CXConfigFile file;
    std::istringstream in(text);
    file.Load(in);
    return file;
}

// The section names, each followed by "|".
std::string SectionNames(const CXConfigFile& file) {
    std::string names;
    for (const auto& entry : file) {
        names += entry.first + "|";
    }
    return names;
}

std::string Trimmed(void (*trim)(std::string&), std::string s) {
    trim(s);
    return s;
}

TEST(StringHelper, TrimRules) {
    using namespace Nvk::stdstring_helper;
    EXPECT_EQ("key", Trimmed(trim_both, "key  \r"));
    // The length is counted from the start: leading blanks keep trailing ones.
    EXPECT_EQ("key  ", Trimmed(trim_both, "  key  "));
    EXPECT_EQ("key \t", Trimmed(trim_both, "  key \t\t\r"));
    EXPECT_EQ("", Trimmed(trim_both, "  \t"));
    EXPECT_EQ("", Trimmed(trim_both, " \r"));  // a carriage return alone counts as trailing
}

TEST(ConfigFile, KeyLinesAndComments) {
    const auto file = Parse(
        "Top=ignored\n"
        "[Scanner]\n"
        "Key = Value # note\n"
        "# Hidden=1\n"
        "Eq=a=b\n"
        "Key2  =  Value  \n"
        "  Key3  =  Value  \n"
        "NoEquals\n"
        "=empty key\n"
        "Empty=\r\n"
        "Last=final");  // no line feed after the last line
    const CXConfigSection s = file["Scanner"];
    EXPECT_EQ("Scanner|", SectionNames(file));
    EXPECT_EQ("Value", s["Key"]);
    EXPECT_EQ("a=b", s["Eq"]);
    EXPECT_EQ("Value", s["Key2"]);
    EXPECT_EQ("Value  ", s["Key3"]);  // the indented line keeps two trailing blanks
    EXPECT_EQ("empty key", s[""]);
    EXPECT_EQ("", s["Empty"]);
    EXPECT_EQ("final", s["Last"]);
    EXPECT_EQ(7u, s.size());  // nothing from above the header or the comment line
}

TEST(ConfigFile, SectionHeaderQuirks) {
    const auto file = Parse(
        "[Plain]\n"
        "  [Scanner]\n"
        "[ Spaced ]\n"
        "Key=[1]\n"
        "[Open\n"
        "x]=[y\n"
        "# [Comment]\n"
        "A=1 # [not a header]\n"
        "[]\n");
    EXPECT_EQ("|1]|Open|Plain|Scanner]|Spaced |", SectionNames(file));
    // A line whose "]" precedes its "[" is dropped; a commented bracket is a key line.
    EXPECT_EQ("1", file["Open"]["A"]);
    EXPECT_EQ(1u, file["Open"].size());
    EXPECT_TRUE(file["Missing"].empty());
}

TEST(ConfigFile, RepeatedSectionsMergeAndLoadReplaces) {
    auto file = Parse(
        "[A]\nx=1\ny=1\n"
        "[B]\nz=1\n"
        "[A]\ny=2\ny=3\n");
    EXPECT_EQ("1", file["A"]["x"]);
    EXPECT_EQ("3", file["A"]["y"]);
    EXPECT_EQ(2u, file["A"].size());

    std::istringstream again("[C]\nk=v\n");
    file.Load(again);
    EXPECT_EQ("C|", SectionNames(file));

    std::istringstream broken("[D]\n");
    broken.setstate(std::ios::failbit);
    file.Load(broken);
    EXPECT_TRUE(file.empty());
}

}  // namespace
