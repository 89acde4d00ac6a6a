#include "vos_fs.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>

#include "support.h"
#include "vos_mem.h"

namespace
{
const std::string CONTENT(100'000, 'c'); // more than a copy holds at a time

// A call by its letter; '@' stands for the scratch directory.
struct Row {
    char call;
    int result;
    std::string a, b;
    std::string error{}; // what is traced
};

struct Fs : testing::Test {
    std::string place(std::string text) const
    {
        for (size_t at = 0; (at = text.find('@')) != std::string::npos;) {
            text.replace(at, 1, scratch.path);
        }
        return text;
    }

    void expect(const Row &row)
    {
        const std::string a = place(row.a);
        const std::string b = place(row.b);
        FILE *stream = nullptr;
        int result = 0;
        const std::string lines = lines_of([&] {
            uint32_t size = 0;
            result = row.call == 'c'   ? vos_fs_copy_file(a.c_str(), b.c_str())
                     : row.call == 'm' ? vos_fs_move_file(a.c_str(), b.c_str())
                     : row.call == 'e' ? vos_fs_enter_dir(a.c_str())
                     : row.call == 's' ? vos_fs_get_file_size(a.c_str(), &size)
                                       : vos_fs_open_file(&stream, a.c_str(), b.c_str(), "wb");
            EXPECT_EQ(size, row.call == 's' && result == 1 ? CONTENT.size() : 0);
        });
        const size_t error = lines.find("ERROR:");
        EXPECT_EQ(result, row.result) << row.call << a << ' ' << b;
        EXPECT_EQ(error == std::string::npos ? "" : lines.substr(error),
                  row.error.empty() ? "" : "ERROR:vos_fs:" + place(row.error) + "|");
        EXPECT_EQ(stream != nullptr, row.call == 'o' && row.result == 1);
        vos_fs_fclose(&stream);
    }
    Scratch scratch;
};

TEST_F(Fs, WalksCopiesAndMoves)
{
    const std::string longest(255, 'n');
    std::filesystem::create_directories("d/w.part");
    std::ofstream("s") << CONTENT;
    std::ofstream("huge").seekp(1LL << 32).put('h'); // of it one block takes room
    std::filesystem::create_symlink("/dev/full", "full");
    const std::string unreadable = "/sys/class/net/lo/speed"; // and on another file system
    const std::string cant_read =
        "Can't read source file \"" + unreadable + "\" : Invalid argument";
    const Row rows[] = {
        {'c', 1, "@/s", "@/a/b/t"},
        {'c', -1, "@/s", "@/s", "Can't open dest file \"@/s\" : it is the source file"},
        {'c', 1, "@/s", "@/a/t.part"}, // neighbours that are nobody's business
        {'c', 1, "@/a/t.part", "@/a/t"},
        {'c', 1, "@/s", "@/d/w"},
        {'c', 1, "@/s", "@/n/" + longest},
        {'c', 1, "@/s", "@/n/" + longest}, // takes the place of the first
        {'c', -1, "@/s", "@/n", "Can't open dest file \"@/n\" : Is a directory"},
        {'c', -1, "@/s", "@/full", "Can't write dest file \"@/full\" : No space left on device"},
        {'c', -1, "@/x", "@/y", "Can't open source file \"@/x\" : No such file or directory"},
        {'m', -3, "@/s", "b", "Invalid destination filename"},
        {'m', -1, "@/s", "x/b", "Invalid directory name \"x/\""},
        {'m', -3, "@/s", "", "Invalid filename while moving file"},
        {'m', 1, "@/s", "@/m/v"},
        {'s', 1, "@/m/v", ""},
        {'c', 1, "v", "@/m/w"}, // looked up beside the destination
        {'s', 1, "w", ""},
        {'s', -3, "", "", "Invalid filename"},
        {'s', -1, "@/huge", "", "Can't obtain file stats for file \"@/huge\" : File too large"},
        {'e', -1, "@/c//d", "", "Invalid directory/file name"},
        {'e', -1, "/proc/x", "", "Can't create directory \"x\" : No such file or directory"},
        {'c', -1, unreadable, "@/a/b/t", cant_read},
        {'e', -1, "//x", "", "Not a relative directory/file name"},
        {'o', 1, "@", "e\\f/g"},
        {'o', -3, "@", "e/", "Filename length is 0"},
        {'o', -1, "@", "e", "Cant open file \"e\" : Is a directory"},
        {'o', -3, "", "e", "Invalid parameter dirname=\"\" filename=\"e\""}};
    umask(027);
    for (const Row &row : rows) {
        expect(row);
    }
    const auto mode = [&](const char *path) {
        return std::filesystem::status(place(path)).permissions();
    };
    EXPECT_EQ(mode("@/m"), std::filesystem::perms{0750});
    EXPECT_EQ(mode("@/m/w"), std::filesystem::perms{0640});
    for (const char *path : {"@/m/w", "@/a/b/t", "@/a/t", "@/a/t.part"}) {
        EXPECT_TRUE(content_of(place(path)) == CONTENT) << path;
    }
    EXPECT_TRUE(std::filesystem::is_empty(place("@/d/w.part")));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(place("@/n")), {}), 1);
    EXPECT_EQ(content_of(place("@/s")), "-");
    EXPECT_EQ(content_of(place("@/y")) + content_of(place("@/e/f/g")), "-");
}

TEST_F(Fs, LeavesNothingOfACopyThatIsKilled)
{
    const std::string from = place("@/pipe"), to = place("@/d/t");
    ASSERT_EQ(mkfifo(from.c_str(), 0600), 0);
    const pid_t child = fork();
    if (child == 0) {
        _exit(vos_fs_copy_file(from.c_str(), to.c_str()));
    }
    std::ofstream pipe(from);
    pipe << CONTENT << std::flush; // more than a pipe holds: some of it has been copied
    kill(child, SIGKILL);
    while (waitpid(child, nullptr, 0) != child) {
    }
    EXPECT_TRUE(std::filesystem::is_empty("d"));
}

TEST_F(Fs, TellsWhatIsThere)
{
    FILE *stream = vos_fs_fopen("s", "wb");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(fcntl(fileno(stream), F_GETFD), FD_CLOEXEC);
    vos_fs_fclose(&stream);
    EXPECT_EQ(stream, vos_fs_fopen(nullptr, "rb"));
    chmod("s", 0640);
    uint32_t told[4] = {9, 9, 9, 9};
    EXPECT_EQ(vos_fs_get_file_stats(".", "s", told, told + 1, told + 2, told + 3), 1);
    EXPECT_EQ(Bytes(told, told + 3), (Bytes{VOS_FS_TYPE_FILE, 0, 0640 & 0xFF}));
    EXPECT_LT(static_cast<uint32_t>(time(nullptr)) - told[3], 5U);

    std::string path = place("@\\");
    VosDir *directory = vos_fs_open_dir(path.data());
    EXPECT_EQ(path, place("@/"));
    const char *name = nullptr;
    do {
        name = vos_fs_read_dir_entry(directory, told);
    } while (name != nullptr && name[0] == '.');
    EXPECT_STREQ(name, "s");
    EXPECT_EQ(told[0], uint32_t{DT_REG});
    vos_fs_close_dir(&directory);
    EXPECT_EQ(vos_fs_read_dir(directory), nullptr);

    char *unique = nullptr;
    EXPECT_EQ(vos_fs_make_unique_name("s.x", nullptr, &unique, true), 1);
    const std::string text = unique;
    EXPECT_TRUE(text.starts_with("s_") && text.size() == 6 &&
                text.find_first_not_of("0123456789abcdef", 2) == std::string::npos)
        << text;
    vos_mem_free(&unique);
    char *block = nullptr;
    EXPECT_EQ(vos_fs_split_path_block("a\\b", &block), 1);
    EXPECT_EQ(std::string(block, 5), std::string("a\\\0b\0", 5));
    vos_mem_free(&block);
    EXPECT_EQ(vos_fs_move_rel_file(path.c_str(), "s", place("@/to").c_str()), 1);
    EXPECT_EQ(content_of(place("@/to/s")), "");
    EXPECT_EQ(vos_fs_copy_rel_file(path.c_str(), "/s", "/"), -3);
}

TEST(FsPath, PartsAndNames)
{
    char *text = nullptr;
    const auto expect_text = [&text](int result, const char *expected) {
        EXPECT_EQ(result, expected != nullptr ? 1 : -3);
        EXPECT_STREQ(text, expected);
        vos_mem_free(&text);
    };
    expect_text((text = vos_fs_build_path("c:\\x/", "\\y/", false), 1), "c:/x/y");
    expect_text((text = vos_fs_build_path("", nullptr, true), 1), "/");
    expect_text((text = vos_fs_build_path("x/", nullptr, true), 1), "x/");
    expect_text(vos_fs_make_unique_name("a.tar.gz", "x", &text, true), "a.tar.x");
    expect_text(vos_fs_make_unique_name(".cfg", "x", &text, false), nullptr);
    expect_text(vos_fs_replace_file_name("/a\\b", "c", &text), "/a\\c");
    char *directory = nullptr;
    expect_text(vos_fs_split_path("/a/b", &directory, &text), "b");
    EXPECT_STREQ(directory, "/a/");
    vos_mem_free(&directory);
    expect_text(vos_fs_split_path("/a/", nullptr, &text), nullptr);
}
} // namespace
