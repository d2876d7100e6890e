#include "host/arpsup/BindingFile.h"

#include <gmock/gmock.h>

namespace {

using Host::parseBindingFile;
using testing::HasSubstr;

std::string linesOf(const Host::BindingFile& file) {
  std::string lines;
  for (const auto& binding : file.bindings) lines += Host::bindingLine(binding) + "\n";
  return lines;
}

TEST(BindingFile, readsCsvAndJsonLines) {
  const char* const expected =
      "10 10.0.0.1 02:00:00:00:00:01\n"
      "4094 2001:db8::1 02:00:00:00:00:0a localMultihomed router\n";
  for (const char* text :
       {"vlan,ip,mac,localMultihomed,router\r\n10,10.0.0.1,02:00:00:00:00:01,false\r\n\r\n4094, 2001:DB8::1 "
        ",02:00:00:00:00:0A,1,1\r\n",
        "# "
        "hosts\n10,10.0.0.1,02:00:00:00:00:01\n\"4094\",\"2001:db8::1\",\"0200.0000.000A\",\"true\",\"true\"",
        "\n\n{\"vlan\":10,\"ip\":\"10.0.0.1\",\"mac\":\"02:00:00:00:00:01\"}\n"
        "  "
        "{\"mac\":\"02-00-00-00-00-0A\",\"localMultihomed\":true,\"router\":true,\"ip\":\"2001:db8::1\","
        "\"vlan\":\"4094\"}"
        "\n"}) {
    const Host::BindingFile file = parseBindingFile(text);
    EXPECT_EQ(linesOf(file), expected) << text;
    EXPECT_EQ(file.badCount, 0u) << text;
  }
  EXPECT_EQ(parseBindingFile("").bindings.size(), 0u);
  // What is written is read back.
  for (const char* flags : {"", " localMultihomed", " router", " localMultihomed router"}) {
    const std::string line = std::string("4094 2001:db8::1 02:00:00:00:00:0a") + flags;
    const auto binding = Host::parseBindingLine(line);
    ASSERT_TRUE(binding) << binding.error();
    EXPECT_EQ(Host::bindingLine(*binding), line);
  }
  EXPECT_FALSE(Host::parseBindingLine("4094 2001:db8::1 02:00:00:00:00:0a rooter"));
}

TEST(BindingFile, namesEachBadLine) {
  const struct {
    const char* before;  // what the format is seen by
    std::vector<std::pair<std::string, const char*>> linesAndProblems;
  } formats[] = {
      {"vlan,ip,mac\n10,10.0.0.1,02:00:00:00:00:01\n\n",
       {{"0,10.0.0.1,02:00:00:00:00:01", "VLAN \"0\" is not a VLAN id"},
        {"4095,10.0.0.1,02:00:00:00:00:01", "VLAN \"4095\""},
        {"10,10.0.0.256,02:00:00:00:00:01", "IP \"10.0.0.256\" is not"},
        {"10,0.0.0.0,02:00:00:00:00:01", "IP \"0.0.0.0\""},
        {"10,127.1.2.3,02:00:00:00:00:01", "IP \"127.1.2.3\" is a loopback address"},
        {"10,::1,02:00:00:00:00:01", "IP \"::1\" is a loopback"},
        {"10,ff02::1,02:00:00:00:00:01", "IP \"ff02::1\""},
        {"10,10.0.0.1,00:00:00:00:00:00", "MAC \"00:00:00:00:00:00\" is not"},
        {"10,10.0.0.1,ff:ff:ff:ff:ff:ff", "MAC"},
        {"10,10.0.0.1,02-00:00:00:00:01", "MAC"},
        {"10,10.0.0.1,02:00:00:00:00:01:", "MAC"},
        {"10,10.0.0.1,02000000.0001", "MAC"},
        {"10,10.0.0.1", "2 fields are not vlan,ip,mac"},
        {"10", "1 field is not"},
        {"10,10.0.0.1,02:00:00:00:00:01,true,true,x", "6 fields"},
        {"10,10.0.0.1,02:00:00:00:00:01,true,x", "router \"x\" is not true, false"},
        {"10,10.0.0.1,02:00:00:00:00:01,yes", "localMultihomed \"yes\" is not true, false"}}},
      {"{\"vlan\":10,\"ip\":\"10.0.0.1\",\"mac\":\"02:00:00:00:00:01\"}\n\n\n",
       {{"{\"vlan\":10", "it is not a JSON object"},
        {std::string(100000, '['), "it is not a JSON object"},
        {R"({"vlan":10.5,"ip":"10.0.0.1","mac":"02:00:00:00:00:01"})", "vlan 10.5 is not a VLAN id"},
        {R"({"vlan":-1,"ip":"10.0.0.1","mac":"02:00:00:00:00:01"})", "VLAN \"-1\""},
        {R"({"vlan":10,"mac":"02:00:00:00:00:01"})", "IP \"\" is not"},
        {R"({"vlan":10,"ip":7,"mac":"02:00:00:00:00:01"})", "ip 7 is not a string"},
        {R"({"vlan":10,"ip":"10.0.0.1","mac":"02:00:00:00:00:01","localMultihomed":1})",
         "localMultihomed 1 is not true or false"},
        {R"({"vlan":10,"ip":"10.0.0.1","mac":"02:00:00:00:00:01","vni":1})", "unknown key \"vni\""}}}};
  for (const auto& format : formats) {
    for (const auto& [line, problem] : format.linesAndProblems) {
      const Host::BindingFile file = parseBindingFile(format.before + line + "\n");
      ASSERT_EQ(file.badCount, 1u) << line.substr(0, 80);
      EXPECT_EQ(file.badLines[0].number, 4u);
      EXPECT_THAT(file.badLines[0].problem, HasSubstr(problem));
      EXPECT_EQ(file.bindings.size(), 1u);
    }
  }
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "bad\n";
  EXPECT_EQ(parseBindingFile(many).badCount, 1000u);
  EXPECT_EQ(parseBindingFile(many).badLines.size(), Host::BindingFile::kKeptBadLines);
}

}  // namespace
