// What lies under a file system, by a folder that looks like sysfs.
#include "tests/support/install.h"
#include "util/medium.h"

#include <gtest/gtest.h>
#include <map>
#include <sys/sysmacros.h>
#include <vector>

namespace fs = std::filesystem;

TEST(Medium, RemovableDevicesAreFoundBehindWhatLiesOnThem) {
    const CTempInstall install;
    const std::string strImage = install.WriteFile("image");
    fs::permissions(strImage, fs::perms(0666));
    const std::string strDeleted = install.Path("gone (deleted)"); // planted where an image was
    fs::create_symlink("/etc/passwd", strDeleted);
    using Files = std::map<std::string, std::string>;
    const std::vector<std::pair<Files, EMedium>> vecCases = {
        {{{"7:7/removable", "0\n"}, {"7:7/slaves/.", ""}}, EMedium::Fixed},
        {{{"7:7/removable", "1\n"}}, EMedium::Removable},
        {{{"7:7/partition", "1\n"}, {"removable", "1\n"}}, EMedium::Removable},
        {{{"7:7/removable", "0\n"}, {"7:7/slaves/x/dev", "8:9\n"}, {"8:9/removable", "1\n"}}, EMedium::Removable},
        {{{"7:7/removable", "0\n"}, {"7:7/slaves/x/dev", "7:7\n"}}, EMedium::Unknown}, // without an end
        {{{"7:7/removable", "0\n"}, {"7:7/slaves/.", ""}, {"7:7/loop/backing_file", strImage}}, EMedium::Removable},
        {{{"7:7/removable", "0\n"}, {"7:7/slaves/.", ""}, {"7:7/loop/backing_file", strDeleted}}, EMedium::Removable},
        {{}, EMedium::Unknown},
    };
    for (size_t i = 0; i < vecCases.size(); ++i) {
        const std::string strSys = install.Path("sys" + std::to_string(i));
        for (const auto &[strName, strText] : vecCases[i].first) {
            const fs::path file = strSys + "/dev/block/" + strName;
            fs::create_directories(file.parent_path());
            if (file.filename() != ".") {
                install.WriteFile(file, strText);
            }
        }
        EXPECT_EQ(MediumOf(-1, makedev(7, 7), EFileSystem::Disk, strSys), vecCases[i].second) << i;
    }
    EXPECT_EQ(MediumOf(-1, makedev(0, 7), EFileSystem::Overlay), EMedium::Fixed);
}
