// Test fixtures shared by every test program.
//
// - temp_dir: a fresh directory under $TMPDIR, removed with its contents.
// - fixed_root: a redirected installation tree (T4MI_ROOT) with the two
//   built-in faces linked from Debian's font packages, the emoji image
//   directory, the extra font directory and the weather directory; tests add
//   or remove files in it freely.
// - private_fontconfig: a fontconfig setup that lists only the directories a
//   test names (FONTCONFIG_FILE), never the machine's fonts by chance.
// - run_process: runs a program with arguments and extra environment and
//   collects its exit status, standard output and standard error.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace t4test {

// Debian font files the tests use.
inline constexpr const char* LIBERATION_SANS = "/usr/share/fonts/truetype/liberation/LiberationSans-Regular.ttf";
inline constexpr const char* LIBERATION_SANS_BOLD = "/usr/share/fonts/truetype/liberation/LiberationSans-Bold.ttf";
inline constexpr const char* LIBERATION_SERIF = "/usr/share/fonts/truetype/liberation/LiberationSerif-Regular.ttf";
inline constexpr const char* SYMBOLA = "/usr/share/fonts/truetype/ancient-scripts/Symbola_hint.ttf";
inline constexpr const char* WQY_MICROHEI = "/usr/share/fonts/truetype/wqy/wqy-microhei.ttc";
inline constexpr const char* NOTO_COLOR_EMOJI = "/usr/share/fonts/truetype/noto/NotoColorEmoji.ttf";

class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;
    const std::string& path() const { return dir; }
    // path()/name
    std::string operator/(const std::string& name) const { return dir + "/" + name; }

private:
    std::string dir;
};

// Writes `content` to `path` (creating parent directories), replacing it.
void write_file(const std::string& path, const std::string& content);
std::string read_file(const std::string& path);
void make_dirs(const std::string& path);
// "key=value" lines (ffprobe's default output) by key; other lines skipped.
std::map<std::string, std::string> key_values(const std::string& text);

// A redirected installation tree; sets T4MI_ROOT for this process while it
// lives (restoring the previous value after).
class fixed_root {
public:
    fixed_root();
    ~fixed_root();
    const std::string& path() const { return dir.path(); }
    // The redirected location of one fixed path, e.g. at("/run/tevrin/weather/kestrel").
    std::string at(const std::string& fixed) const { return dir.path() + fixed; }
    // Environment entry for child processes: "T4MI_ROOT=<path>".
    std::string env() const { return "T4MI_ROOT=" + dir.path(); }

private:
    temp_dir dir;
    std::string previous;
    bool had_previous = false;
};

// Writes a fonts.conf that lists exactly `font_dirs` and points
// FONTCONFIG_FILE at it while it lives.
class private_fontconfig {
public:
    explicit private_fontconfig(const std::vector<std::string>& font_dirs);
    ~private_fontconfig();
    const std::string& config_file() const { return file; }
    std::string env() const { return "FONTCONFIG_FILE=" + file; }

private:
    temp_dir dir;
    std::string file;
    std::string previous;
    bool had_previous = false;
};

struct process_result {
    int exit_status = -1;  // exit code, or -1 when killed by a signal
    int signal = 0;        // the signal that ended it, or 0
    bool timed_out = false;
    std::string out;
    std::string err;
};

// Runs `program` with `args` (argv[1..]); `env` entries ("NAME=value") are
// added to this process's environment. Kills it after `timeout_ms`.
process_result run_process(const std::string& program, const std::vector<std::string>& args,
                           const std::vector<std::string>& env = {}, int timeout_ms = 30000,
                           const std::string& cwd = "");

// The built program's path.
std::string scrolltext_binary();

// Runs `body` in a forked copy of this process, with the child's standard
// output and error collected; the child exits with 0 when `body` returns.
// Kills it after `timeout_ms` (timed_out is then set), so code that is meant
// to hang or abort can be tested without taking the test program down.
process_result run_in_child(const std::function<void()>& body, int timeout_ms = 10000);

} // namespace t4test
