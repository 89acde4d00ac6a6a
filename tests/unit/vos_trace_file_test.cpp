#include <algorithm>
#include <csignal>
#include <fstream>
#include <map>
#include <set>
#include <sys/resource.h>
#include <thread>

#include "support.h"
#include "vos_trace.h"

namespace
{
namespace fs = std::filesystem;
constexpr time_t EVENING = 1795391999; // 2026-11-22 23:59:59

std::set<std::string> names_in(const std::string &directory)
{
    std::set<std::string> names;
    for (const auto &entry : fs::directory_iterator(directory)) {
        names.insert(entry.path().filename());
    }
    return names;
}

void make_file(const std::string &path, int age)
{
    std::ofstream(path) << "old";
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::seconds(age));
}

void trace(const char *text)
{
    vos_trace_error("m", 1, "%s", text);
}

TEST(TraceFile, NamesAreCheckedAndJoined)
{
    const Scratch scratch;
    const std::string invalid = "trace path invalid, use stdout|", root = scratch.path,
                      slashed = root + "/";
    const std::string none = "none", base = std::string(33, 'b');
    const auto text = [](const char *name) { return name != nullptr ? name : "none"; };
    for (const auto &[given_root, subdir, directory, lines] :
         Table<const char *, const char *, std::string, std::string>{
             {nullptr, "logs", none, invalid},
             {"/absent", "logs", none, invalid},
             {root.c_str(), "logs", root + "/logs/", ""},
             {"/absent", "logs", root + "/logs/", ""},
             {slashed.c_str(), "logs/", root + "/logs/", ""},
             {root.c_str(), "", root + "//", ""}}) {
        EXPECT_EQ(
            lines_of([r = given_root, s = subdir, &base] { vos_trace_init(r, s, base.c_str()); }),
            lines);
        EXPECT_EQ(text(vos_trace_get_dir()), directory);
    }
    EXPECT_EQ(std::string(vos_trace_get_root()) + vos_trace_get_subdir(), root + "//");
    output_of([] { trace("x"); });
    EXPECT_TRUE(names_in(root).rbegin()->starts_with("traceagent-20")) << "a base name too long";
    vos_trace_close();
    EXPECT_EQ(vos_trace_get_dir(), nullptr);
    output_of([] { (trace("only there"), vos_trace_new_file()); });
    EXPECT_EQ(names_in(root).size(), 2U) << "another file";
    std::string deep = root + '/';
    for (const char part : {'a', 'b', 'c', 'd'}) {
        deep += std::string(200, part) + '/';
    }
    deep += std::string(997 - deep.size() - 3, 'e'); // with "/l/" behind it
    fs::create_directories(deep);
    EXPECT_EQ(lines_of([&] { vos_trace_init(deep.c_str(), "ll", nullptr); }), invalid);
    vos_trace_init(deep.c_str(), "l", nullptr);
    fake_clock = {EVENING, 0};
    output_of([] { (trace("1"), vos_trace_new_file(), vos_trace_new_file()); });
    const auto names = names_in(deep + "/l"); // of one second, of the same length
    EXPECT_EQ(names.size(), 3U);
    EXPECT_EQ(names.begin()->size() + names.rbegin()->size(), 2 * (1023 - 997U));
}

TEST(TraceFile, RotatesBySizeAndKeepsTheYoungest)
{
    const Scratch scratch;
    fs::create_directories("l/base-directory");
    for (int age = 0; age < 12; ++age) {
        make_file("l/base" + std::to_string(10 + age), age < 10 ? 500 : 1000 * age);
    }
    make_file("l/other", 9999);
    fake_clock = {EVENING, 0};
    vos_trace_set_file_size(2 * 41);
    vos_trace_init(scratch.path.c_str(), "l", "base");
    const std::string line =
        "20261122-235959:ERROR:m:1:" + std::string(14, 'x'); // 41 bytes with its end
    output_of([] { trace("xxxxxxxxxxxxxx"); });
    EXPECT_FALSE(fs::exists("l/base20") || fs::exists("l/base21"));
    EXPECT_EQ(names_in("l").size(), 9U + 1 + 2) << "the tenth, other and the directory";
    EXPECT_EQ(content_of("l/base-20261122-235959"), line + "\n");
    for (int i = 0; i < 3; ++i) {
        output_of([] { trace("xxxxxxxxxxxxxx"); }); // reaches the size exactly, twice
    }
    EXPECT_EQ(content_of("l/base-20261122-235959"), line + "\n" + line + "\n");
    EXPECT_EQ(names_in("l").size(), 12U) << "two more of the same second, in place of two";
    vos_trace_set_file_count(1);
    for (void (*step)() :
         {+[] { fake_clock.tv_sec += 3600; }, +[] { fake_clock.tv_sec -= 7200; }}) {
        on_allocation = step; // in the middle of it
        vos_trace_new_file();
        EXPECT_EQ(names_in("l").size(), 1U + 2);
        const std::string last = output_of([] { trace("x"); });
        EXPECT_EQ(content_of("l/" + *names_in("l").begin()), last);
    }
}

TEST(TraceFile, RotatesWhenTheDayOfTheMonthChanges)
{
    const Scratch scratch;
    const auto at = [](time_t time, const char *text) {
        fake_clock = {time, 0};
        return output_of([text] { trace(text); });
    };
    vos_trace_set_file_count(0);
    vos_trace_set_file_size(1);
    vos_trace_init(scratch.path.c_str(), "logs", nullptr);
    std::string today = at(EVENING, "a");
    today += at(EVENING + time_t{30} * 86400, "same day of the next month");
    EXPECT_EQ(content_of("logs/traceagent.txt"), today);
    const std::string next = at(EVENING + 1, "c");
    EXPECT_EQ(content_of("logs/traceagent-20261122.txt"), today);
    EXPECT_EQ(content_of("logs/traceagent.txt"), next);
    vos_trace_new_file();
    EXPECT_EQ(content_of("logs/traceagent-20261123.txt") + content_of("logs/traceagent.txt"), next);
    fs::remove("logs/traceagent-20261123.txt");
    fs::create_directory("logs/traceagent-20261123.txt");
    EXPECT_TRUE(at(EVENING + 86401, "d")
                    .starts_with("Can't move file from \"" + scratch.path +
                                 "/logs//traceagent.txt\" to \"" + scratch.path +
                                 "/logs/traceagent-20261123.txt\" : Is a directory\r\n"));
    EXPECT_TRUE(content_of("logs/traceagent.txt").ends_with(":d\n"));
}

TEST(TraceFile, ASecondInitLeavesTheOpenFileAsLongAsItServes)
{
    const Scratch scratch;
    fake_clock = {EVENING, 0};
    const auto init = [&](const char *subdir, const char *base) {
        vos_trace_init(scratch.path.c_str(), subdir, base);
        return output_of([] { trace("x"); });
    };
    std::string daily, sized;
    vos_trace_set_file_count(0);
    daily = init("l", "b");
    daily += init("l/", nullptr);
    EXPECT_EQ(content_of("l/b.txt"), daily);
    const std::string other = init("m", "b");
    EXPECT_EQ(content_of("m/b.txt"), other);
    vos_trace_set_file_count(9);
    sized = init("s", "c");
    sized += init("t", "c");
    EXPECT_EQ(names_in("t").size(), 0U);
    vos_trace_set_file_size(1);
    sized += init("t", "c");
    EXPECT_EQ(content_of("s/c-20261122-235959"), sized);
    EXPECT_EQ(content_of("t/c-20261122-235959"), "") << "the next one";
    EXPECT_EQ(content_of("l/b.txt"), daily);
}

TEST(TraceFile, ADirectoryThatVanishesOrFillsUpCostsTheFileAlone)
{
    const Scratch scratch;
    vos_trace_init(scratch.path.c_str(), "l", nullptr);
    output_of([] { trace(std::string(900, 'x').c_str()); }); // what is captured below stays smaller
    const std::string file = fs::directory_iterator("l")->path();
    const std::string whole = content_of(file);
    vos_trace_set_file_size(static_cast<uint32_t>(whole.size()) + 29); // one more than a line's
    signal(SIGXFSZ, SIG_IGN);
    rlimit room = {};
    getrlimit(RLIMIT_FSIZE, &room);
    const rlimit full = {whole.size() + 7, room.rlim_max};
    EXPECT_EQ(lines_of([&] {
                  setrlimit(RLIMIT_FSIZE, &full);
                  trace("1");
                  trace("2");
                  setrlimit(RLIMIT_FSIZE, &room);
                  trace("3");
              }),
              "trace file write error : File too large|ERROR:m:1|ERROR:m:2|ERROR:m:3|");
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(content_of(file).size(), whole.size() + 28) << "the third line alone";
    EXPECT_EQ(names_in("l").size(), 1U) << "what was not stored does not count";
    EXPECT_TRUE(content_of(file).starts_with(whole) && content_of(file).ends_with(":3\n"));
    fs::remove_all("l");
    on_allocation = [] { trace("from inside"); };
    EXPECT_EQ(lines_of([] { (vos_trace_new_file(), trace("x"), trace("y")); }),
              "ERROR:m:from inside|trace file open error : No such file or directory|ERROR:m:x|"
              "ERROR:m:y|");
}

TEST(TraceFile, LinesOfManyThreadsStayWholeAndAreAllInTheFiles)
{
    const Scratch scratch;
    vos_trace_set_file_count(1000);
    vos_trace_set_file_size(2000);
    vos_trace_init(scratch.path.c_str(), "l", nullptr);
    std::istringstream printed(output_of([] {
        std::vector<std::jthread> writers;
        for (char name = 'a'; name < 'i'; ++name) {
            writers.emplace_back([name] {
                for (int i = 0; i < 1000; ++i) {
                    vos_trace_info("%c%d", name, i);
                }
            });
        }
    }));
    std::multiset<std::string> lines, kept;
    std::map<char, int> next;
    for (std::string line; std::getline(printed, line); lines.insert(line)) {
        ASSERT_EQ(line.substr(22), std::to_string(next[line.at(21)]++));
    }
    EXPECT_EQ(lines.size(), 8000U);
    EXPECT_GT(names_in("l").size(), 50U);
    for (const std::string &name : names_in("l")) {
        std::ifstream file("l/" + name);
        for (std::string line; std::getline(file, line);) {
            kept.insert(line);
        }
    }
    EXPECT_TRUE(kept == lines);
}

TEST(Example, WritesItsLinesToFiles)
{
    const Scratch scratch;
    const std::string program =
        fs::read_symlink("/proc/self/exe").parent_path() / "runtime-example";
    ASSERT_EQ(system((program + " . >/dev/null").c_str()), 0);
    std::string files;
    for (const auto &entry : fs::directory_iterator("example-logs")) {
        files += content_of(entry.path());
    }
    for (const char *line : {"INFO:reading 4\n", "INFO:reading 0\n", "INFO:0 blocks lost\n"}) {
        EXPECT_NE(files.find(line), std::string::npos) << line;
    }
}

TEST(TraceFileDeathTest, FatalIsTheLastLineOfTheFile)
{
    const Scratch scratch;
    vos_trace_init(scratch.path.c_str(), "l", nullptr);
    EXPECT_EXIT((trace("x"), vos_trace_fatal("m", 2, "gone")), testing::ExitedWithCode(1), "");
    EXPECT_TRUE(content_of(fs::directory_iterator("l")->path()).ends_with("FATAL:m:2:gone\n"));
}
} // namespace
