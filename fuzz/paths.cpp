// Two path texts, each up to a NUL. What was taken apart fits together again.
#include "support.h"
#include "vos_fs.h"
#include "vos_mem.h"

void fuzz(FuzzedDataProvider &&input)
{
    const auto take = [](char *block) {
        std::string text = block;
        vos_mem_free(&block);
        return text;
    };
    const std::string one = &input.ConsumeRandomLengthString()[0];
    const std::string two = &input.ConsumeRandomLengthString()[0];
    char *text = nullptr;
    if (vos_fs_split_path_block(one.c_str(), &text) == VOS_FS_OK) {
        const std::string name = text + strlen(text) + 1;
        assert(take(text) + name == one && name.find_first_of("/\\") == std::string::npos);
        vos_fs_replace_file_name(one.c_str(), name.c_str(), &text);
        assert(take(text) == one);
    }
    char *directory = nullptr;
    if (vos_fs_split_path(one.c_str(), &directory, &text) == VOS_FS_OK) {
        assert(take(directory) + take(text) == one);
    }
    if (vos_fs_make_unique_name(one.c_str(), two.c_str(), &text, false) == VOS_FS_OK) {
        assert(take(text) == one.substr(0, one.rfind('.')) + '.' + two);
    }
    const std::string path = take(vos_fs_build_path(one.c_str(), two.c_str(), false));
    assert(take(vos_fs_build_path(one.c_str(), two.c_str(), true)) == path + '/');
}
