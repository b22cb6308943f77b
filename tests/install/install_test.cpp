// The installation: `cmake --install` of this build tree into a temporary
// prefix, then what a user and an integrator do with that prefix alone:
// run the installed program and tools, build examples/client with
// pkg-config and with find_package(T4miClient), and run the example client
// against the installed server.
//
// One program run installs once (SetUpTestSuite), so CTest runs it as one
// test rather than one per case.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include "frames/yuva_png.h"
#include "support/serving_env.h"
#include "support/test_env.h"

namespace fs = std::filesystem;
using namespace t4test;

namespace {

// A program of the machine's (pkg-config, make, nm...), found on PATH.
std::string on_path(const std::string& name)
{
    const char* path = std::getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
    for (size_t at = 0; at <= dirs.size();) {
        const size_t end = std::min(dirs.find(':', at), dirs.size());
        const std::string candidate = dirs.substr(at, end - at) + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0)
            return candidate;
        at = end + 1;
    }
    return name;
}

class Install : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        prefix_dir = new temp_dir;
        installed = run_process(T4MI_CMAKE_COMMAND, {"--install", T4MI_BINARY_DIR, "--prefix", prefix()}, {}, 120000);
    }
    static void TearDownTestSuite()
    {
        delete prefix_dir;
        prefix_dir = nullptr;
    }
    void SetUp() override { ASSERT_EQ(installed.exit_status, 0) << installed.out << installed.err; }

    static std::string prefix() { return prefix_dir->path(); }
    static std::string at(const std::string& relative) { return prefix() + "/" + relative; }
    static std::string libdir() { return at(T4MI_INSTALL_LIBDIR); }
    static std::string lib(const std::string& name) { return libdir() + "/" + name; }
    static std::string shared_library() { return lib("libt4mi_client.so"); }

    // The shared library of a sanitizer build needs the sanitizer's run-time,
    // which a plain example program does not link.
    static bool library_is_instrumented()
    {
        const process_result r = run_process(on_path("nm"), {"-D", "--undefined-only", shared_library()});
        return r.out.find("__asan_") != std::string::npos || r.out.find("__ubsan_") != std::string::npos;
    }

    // A copy of the installed example sources in a fresh directory.
    static std::string example_copy(const temp_dir& work)
    {
        const std::string dir = work / "client";
        fs::copy(at("share/doc/t4mi-scrolltext/examples/client"), dir, fs::copy_options::recursive);
        return dir;
    }

    // Runs `client` (one of the example builds) against the installed server
    // on the installed example item; the PNG it writes must be 1920 x 108.
    static void serve_example_to(const std::string& client)
    {
        fixed_root root;
        private_fontconfig fonts({"/usr/share/fonts/truetype/liberation"});
        temp_dir work;
        serving_process server(at("bin/t4mi_scrolltext"),
                               {"--file", at("share/doc/t4mi-scrolltext/examples/ticker.txt"), "--metadir",
                                work / "meta"},
                               {root.env(), fonts.env()});
        ASSERT_TRUE(server.wait_ready(work / "meta")) << server.err();
        const process_result r = run_process(client, {server.socket_path(), work / "frame.png"},
                                             {"LD_LIBRARY_PATH=" + libdir()}, 60000);
        EXPECT_EQ(r.exit_status, 0) << r.out << r.err;
        EXPECT_NE(r.out.find("context 1920x108"), std::string::npos) << r.out;
        std::vector<uint8_t> rgba;
        uint32_t width = 0, height = 0;
        std::string error;
        ASSERT_TRUE(read_rgba_png(work / "frame.png", &rgba, &width, &height, &error)) << error;
        EXPECT_EQ(width, 1920u);
        EXPECT_EQ(height, 108u);
        int status = -1;
        EXPECT_TRUE(server.stop(SIGTERM, 5000, &status));
        EXPECT_EQ(status, 0) << server.err();
    }

    static temp_dir* prefix_dir;
    static process_result installed;
};

temp_dir* Install::prefix_dir = nullptr;
process_result Install::installed;

TEST_F(Install, EveryFileLandsBelowThePrefix)
{
    const std::string manifest = read_file(std::string(T4MI_BINARY_DIR) + "/install_manifest.txt");
    size_t lines = 0;
    for (size_t at = 0; at < manifest.size();) {
        const size_t end = manifest.find('\n', at);
        const std::string line = manifest.substr(at, end - at);
        EXPECT_EQ(line.rfind(prefix() + "/", 0), 0u) << line;
        lines++;
        at = end == std::string::npos ? manifest.size() : end + 1;
    }
    EXPECT_GT(lines, 20u);
}

TEST_F(Install, TheProgramTheToolsAndTheSdk)
{
    for (const char* file : {"bin/t4mi_scrolltext", "bin/t4mi_render", "bin/t4mi_control", "bin/t4mi_frames",
                             "share/doc/t4mi-scrolltext/README.md", "share/doc/t4mi-scrolltext/integration.md",
                             "share/doc/t4mi-scrolltext/protocol.md", "share/doc/t4mi-scrolltext/examples/ticker.txt",
                             "share/doc/t4mi-scrolltext/examples/client/example_client.cpp"})
        EXPECT_TRUE(fs::exists(at(file))) << file;
    for (const char* file : {"libt4mi_client.a", "libt4mi_client.so", "libt4mi_client.so.1",
                             "pkgconfig/t4mi-client.pc", "cmake/T4miClient/T4miClientConfig.cmake",
                             "cmake/T4miClient/T4miClientConfigVersion.cmake",
                             "cmake/T4miClient/T4miClientTargets.cmake"})
        EXPECT_TRUE(fs::exists(lib(file))) << file;
    EXPECT_FALSE(fs::exists(at("bin/make_emoji_pngs")));
    EXPECT_TRUE(fs::is_symlink(lib("libt4mi_client.so")));
    EXPECT_EQ(fs::read_symlink(lib("libt4mi_client.so.1")).string(), "libt4mi_client.so." T4MI_PROJECT_VERSION);
}

TEST_F(Install, AManPageForTheProgramAndEachTool)
{
    if (!T4MI_MAN_PAGES)
        GTEST_SKIP() << "built without pandoc: no man pages";
    for (const char* page : {"t4mi_scrolltext", "t4mi_render", "t4mi_control", "t4mi_frames"}) {
        const std::string file = at("share/man/man1/") + page + ".1.gz";
        ASSERT_TRUE(fs::exists(file)) << file;
        const process_result r = run_process(on_path("gzip"), {"-dc", file});
        EXPECT_NE(r.out.find(".TH"), std::string::npos) << page;
        EXPECT_NE(r.out.find("t4mi-scrolltext " T4MI_PROJECT_VERSION), std::string::npos) << page;
    }
}

TEST_F(Install, OnlyThePublicHeadersAndEachStandsAlone)
{
    std::set<std::string> headers;
    for (const auto& entry : fs::directory_iterator(at("include/t4mi")))
        headers.insert(entry.path().filename().string());
    EXPECT_EQ(headers, (std::set<std::string>{"client.h", "export.h", "frame_descriptor.h", "packet.h",
                                              "settings.h", "version.h"}));
    size_t top = 0;
    for (const auto& entry : fs::directory_iterator(at("include")))
        top += entry.path().filename() == "t4mi" ? 1 : 100;
    EXPECT_EQ(top, 1u);  // include/t4mi/ and nothing beside it
    for (const auto& name : headers) {
        temp_dir work;
        write_file(work / "one.cpp", "#include <t4mi/" + name + ">\n");
        const process_result r = run_process(T4MI_CXX_COMPILER, {"-std=c++20", "-fsyntax-only", "-Wall", "-Wextra",
                                                                 "-Werror", "-I" + at("include"), work / "one.cpp"});
        EXPECT_EQ(r.exit_status, 0) << name << "\n" << r.err;
    }
}

TEST_F(Install, TheLibraryHasItsSonameAndExportsOnlyItsApi)
{
    const process_result dynamic = run_process(on_path("readelf"), {"-d", shared_library()});
    EXPECT_NE(dynamic.out.find("Library soname: [libt4mi_client.so.1]"), std::string::npos) << dynamic.out;
    const process_result symbols = run_process(on_path("nm"), {"-DC", "--defined-only", shared_library()});
    EXPECT_NE(symbols.out.find("t4mi_client::connect("), std::string::npos);
    EXPECT_NE(symbols.out.find("t4mi_client_read_ready("), std::string::npos);
    EXPECT_NE(symbols.out.find("comm_socket_v4_packet::set_data("), std::string::npos);
    // The wire codec is the library's own business.
    EXPECT_EQ(symbols.out.find("comm_socket_v4_packet_encode"), std::string::npos);
    EXPECT_EQ(symbols.out.find("comm_socket_v4_packet_decode"), std::string::npos);
}

TEST_F(Install, InstalledProgramsNeedNothingFromTheBuildTree)
{
    for (const char* program : {"t4mi_scrolltext", "t4mi_render", "t4mi_control", "t4mi_frames"}) {
        const process_result r = run_process(on_path("readelf"), {"-d", at(std::string("bin/") + program)});
        EXPECT_EQ(r.out.find("RUNPATH"), std::string::npos) << program;
        EXPECT_EQ(r.out.find("RPATH"), std::string::npos) << program;
        EXPECT_EQ(r.out.find("libt4mi_client"), std::string::npos) << program;
    }
}

TEST_F(Install, VersionFromTheProgramAndEveryTool)
{
    for (const char* program : {"t4mi_scrolltext", "t4mi_render", "t4mi_control", "t4mi_frames"}) {
        const process_result r = run_process(at(std::string("bin/") + program), {"--version"});
        EXPECT_EQ(r.exit_status, 0) << program;
        EXPECT_EQ(r.out, std::string(program) + " " T4MI_PROJECT_VERSION "\n");
        EXPECT_EQ(r.err, "");
    }
}

TEST_F(Install, PkgConfigNamesTheInstallPrefix)
{
    const std::vector<std::string> env = {"PKG_CONFIG_PATH=" + lib("pkgconfig")};
    const process_result r = run_process(on_path("pkg-config"), {"--cflags", "--libs", "t4mi-client"}, env);
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.out, "-I" + at("include") + " -L" + libdir() + " -lt4mi_client \n");
    EXPECT_EQ(run_process(on_path("pkg-config"), {"--modversion", "t4mi-client"}, env).out, T4MI_PROJECT_VERSION "\n");
}

TEST_F(Install, TheExampleBuiltWithPkgConfigGetsFramesFromTheInstalledServer)
{
    if (library_is_instrumented())
        GTEST_SKIP() << "sanitizer build: the library needs the sanitizer run-time";
    temp_dir work;
    const std::string dir = example_copy(work);
    const process_result made =
        run_process(on_path("make"), {"-C", dir, "CXX=" T4MI_CXX_COMPILER}, {"PKG_CONFIG_PATH=" + lib("pkgconfig")}, 300000);
    ASSERT_EQ(made.exit_status, 0) << made.out << made.err;
    EXPECT_NE(made.out.find("-I" + at("include")), std::string::npos) << made.out;
    serve_example_to(dir + "/t4mi_example_client");
}

TEST_F(Install, TheExampleBuiltWithFindPackageGetsFramesFromTheInstalledServer)
{
    if (library_is_instrumented())
        GTEST_SKIP() << "sanitizer build: the library needs the sanitizer run-time";
    temp_dir work;
    const std::string dir = example_copy(work);
    const process_result configured =
        run_process(T4MI_CMAKE_COMMAND, {"-S", dir, "-B", work / "build", "-DCMAKE_PREFIX_PATH=" + prefix(),
                                         "-DCMAKE_CXX_COMPILER=" T4MI_CXX_COMPILER},
                    {}, 300000);
    ASSERT_EQ(configured.exit_status, 0) << configured.out << configured.err;
    const process_result built = run_process(T4MI_CMAKE_COMMAND, {"--build", work / "build"}, {}, 300000);
    ASSERT_EQ(built.exit_status, 0) << built.out << built.err;
    serve_example_to(work / "build/t4mi_example_client");
}

} // namespace
