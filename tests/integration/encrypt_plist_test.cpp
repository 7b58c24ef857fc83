// The enciphering tool, built as it ships: its files are read back by the framework's readers.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "../unit/test_support.h"
#include "framework/base/decrypt.h"
#include "platform/property_list.h"

namespace qvk::test {
namespace {

// Runs the tool with `args`; its exit status, or -1 when it did not exit.
int RunTool(std::vector<std::string> args) {
    args.insert(args.begin(), QVK_ENCRYPT_PLIST_TOOL);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(EncryptPlistTool, ItsFilesAreReadBackWithTheKeyTheyWereMadeWith) {
    TempDir dir;
    Value list(Dictionary{{"Devices", Value(Array{Value(Dictionary{{"idVendor", Value(0x12d1)}})})},
                          {"Name", Value("Modem")}});
    std::string source = dir.path() + "/list.plist";
    WriteFile(source, platform::XmlPropertyList(list));

    ASSERT_EQ(RunTool({"--product", source, dir.path() + "/product.bin"}), 0);
    ASSERT_EQ(RunTool({"--common", source, dir.path() + "/common.bin"}), 0);
    EXPECT_EQ(ReadFile(dir.path() + "/product.bin").find("Modem"), std::string::npos) << "no clear text";
    EXPECT_EQ(QVK_Framework_LoadEncrypted(dir.path() + "/product.bin", true), list);
    EXPECT_EQ(QVK_Framework_LoadEncrypted(dir.path() + "/common.bin", false), list);
    EXPECT_EQ(QVK_Framework_LoadEncrypted(dir.path() + "/product.bin", false), std::nullopt);
    EXPECT_EQ(QVK_Framework_LoadEncrypted(dir.path() + "/common.bin", true), std::nullopt);
}

TEST(EncryptPlistTool, RefusesWhatItCannotEncipher) {
    TempDir dir;
    std::string text = dir.path() + "/text.txt";
    WriteFile(text, "just text");
    EXPECT_EQ(RunTool({"--product", text, dir.path() + "/out.bin"}), 1);
    EXPECT_EQ(RunTool({"--product", dir.path() + "/missing.plist", dir.path() + "/out.bin"}), 1);
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/out.bin")) << "nothing is written for bad input";
    EXPECT_EQ(RunTool({"--other", text, dir.path() + "/out.bin"}), 2);
}

}  // namespace
}  // namespace qvk::test
