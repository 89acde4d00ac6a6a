#include "harness.h"

#include "../private_mounts.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace e2e
{
namespace
{
namespace fs = std::filesystem;

const std::string PLACED = "/var/ftp/a1b2c3";
const std::string UNREADABLE = "/sys/bus/platform/drivers_probe"; // for root too
const std::string RESULT = "DEBUG:coap_client:COAP RES:";

// Two small file systems of the test's own: the working directory and /var.
struct Files : testing::Test {
    const std::string directory = "/tmp/ein Ger\u00e4t";

    void SetUp() override
    {
        if (gateway_namespace < 0) {
            GTEST_SKIP() << "no file systems of our own without namespaces";
        }
        ASSERT_TRUE(mount_empty("/var", "size=1m"));
        ASSERT_TRUE(mount_empty("/tmp", "size=4m"));
        fs::create_directory(directory);
        fs::current_path(directory);
    }
};

struct Firmware : Files {
    static std::string request_line(const std::string &path)
    {
        return "DEBUG:app_lan:Request fw upgrade of Modem a1b2c3 (" + path + ")\n";
    }
    static std::string copy_line(const std::string &path)
    {
        return "DEBUG:vos_fs:Copying file \"" + path + "\" to \"" + PLACED + "\"\n";
    }
    static std::string copy_lines(const std::string &path)
    {
        return "DEBUG:vos_fs:Can't move file from \"" + path + "\" to \"" + PLACED +
               "\" : Invalid cross-device link\n" + copy_line(path);
    }
    // Runs the upgrade until the modem has accepted it.
    static void announce(Process &tool, Peer &modem, const std::string &path,
                         const std::string &moving, std::size_t size)
    {
        tool.register_modem(modem);
        tool.expect(request_line(path) + moving +
                    text("DEBUG:app_lan:Request fw upgrade of Modem a1b2c3 (a1b2c3), name:manual, "
                         "size:%zu\n",
                         size));
        modem.reply(
            encode(ACK, CHANGED,
                   modem.expect_request("POST firmware_upgrade_req " + hex(little_endian(size, 4)) +
                                        "6 0 61 31 62 32 63 33 0")));
        tool.expect(RESULT + "2.04\n");
    }
};

TEST_F(Firmware, IsCopiedToAnotherFileSystemAndRemovedOnceInstalled)
{
    const std::string path = directory + "/fw.bin", firmware(600'000, 'f');
    std::ofstream(path) << firmware;
    fs::create_directory("/var/ftp");
    std::ofstream(PLACED) << firmware; // left by an earlier run; there is no room for both
    Peer modem, stranger(2);
    Process tool("-c 3 -d fw.bin 64 -1 -u fw.bin");
    announce(tool, modem, path, copy_lines(path), firmware.size());
    EXPECT_TRUE(content_of(PLACED) == firmware);
    EXPECT_FALSE(fs::exists(path));
    modem.report("info_ind", info()); // takes nothing away of what is known of the upgrade
    tool.expect(info_line());
    stranger.report("firmware_install_ind", "\1");
    tool.expect("ERROR:app_lan:Firmware install of an unknown modem\n");
    EXPECT_TRUE(fs::exists(PLACED));
    modem.report("firmware_install_ind", "\1");
    tool.expect("DEBUG:app_lan:Firmware install (name:manual) of modem a1b2c3 is OK \n");
    EXPECT_FALSE(fs::exists(PLACED));
}

TEST_F(Firmware, IsRenamedOnOneFileSystemAndRemovedWhenItFails)
{
    fs::create_directory("/var/ftp");
    std::ofstream(PLACED) << "of an earlier upgrade";
    std::ofstream("/var/fw") << "new";
    const auto year = std::chrono::hours(24 * 365); // a time that has more than 32 bits
    fs::last_write_time("/var/fw", fs::file_time_type::clock::now() + 20 * year);
    Peer modem;
    Process tool("-u /var/fw");
    announce(tool, modem, "/var/fw", "", 3);
    EXPECT_EQ(content_of(PLACED) + content_of("/var/fw"), "new-");
    for (int i = 0; i < 3; ++i) { // the name stays; a file that is gone already is no fault
        i == 1 ? void(std::ofstream(PLACED)) : void();
        modem.report("firmware_install_ind", Bytes(1, '\0'));
        tool.expect("DEBUG:app_lan:Firmware install (name:manual) of modem a1b2c3 is KO \n");
        EXPECT_FALSE(fs::exists(PLACED));
    }
}

TEST_F(Firmware, ThatALinkNamesIsCopiedAndTheLinkGoes)
{
    const std::string links[][4] = {{"/var/link", "fw", copy_line("/var/fw")},
                                    {"/tmp/link", "/var/fw", copy_lines("/tmp/link")},
                                    {"/tmp/link", PLACED, ""},
                                    {"/var/link", PLACED, ""},
                                    {PLACED, "/var/fw", copy_line("/var/fw")},
                                    {"/tmp/link", PLACED, copy_line("/var/fw"), "/var/fw"},
                                    {"/var/hard", "", ""}, // names of the file in place
                                    {"/tmp/ftp/a1b2c3", "", ""}};
    fs::create_directory("/var/ftp");
    fs::create_directory("/tmp/ftp");
    ASSERT_EQ(mount("/var/ftp", "/tmp/ftp", nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mkfifo(PLACED.c_str(), 0600), 0); // the first copy must not wait for its reader
    for (const auto &[link, file, moving, in_place] : links) {
        SCOPED_TRACE(link + file);
        std::ofstream("/var/fw") << "new";
        if (!in_place.empty()) {
            fs::remove(PLACED);
            fs::create_symlink(in_place, PLACED);
        }
        if (!file.empty()) {
            fs::remove(link);
            fs::create_symlink(file, link);
        } else if (link == "/var/hard") {
            fs::create_hard_link(PLACED, link);
        }
        Peer modem;
        Process tool("-u " + link);
        announce(tool, modem, link, moving, 3);
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(PLACED)));
        EXPECT_EQ(content_of(PLACED) + content_of("/var/fw"), "newnew");
        EXPECT_EQ(fs::exists(fs::symlink_status(link)), file.empty() || link == PLACED);
    }
}

TEST_F(Firmware, ThatCanNotBePlacedIsNotAnnounced)
{
    const std::string begin = "ERROR:vos_fs:Can't ", to = "file \"" + PLACED + "\" : ";
    const struct {
        std::string path;
        std::size_t size;                // of the file made; 0 for none
        std::string failure;             // lines
        std::string obstacle{}, stays{}; // what is where /var/ftp should be; what is still there
        std::string placed{"earlier"};   // what is in place
    } cases[] = {
        {"/tmp/missing", 0,
         begin + "obtain file stats for file \"/tmp/missing\" : No such file or directory\n"},
        {"/tmp/empty", 0, ""},
        {"/tmp", 0, "ERROR:vos_fs:/tmp is a directory\n", "", "/tmp"},
        {"/tmp/pipe", 0, "", "", "/tmp/pipe"},
        {UNREADABLE, 0,
         copy_lines(UNREADABLE) + begin + "open source file \"" + UNREADABLE +
             "\" : Permission denied\n",
         "", UNREADABLE},
        {"/tmp/fw", 2'000'000,
         copy_lines("/tmp/fw") + begin + "write dest " + to + "No space left on device\n", "", "",
         "-"},
        {"/tmp/fw", 10, begin + "change directory \"ftp\" : Not a directory\n", "/var/ftp",
         "/var/ftp", "-"},
        {"/tmp/busy", 0,
         copy_lines("/tmp/busy") + begin +
             "remove source file \"/tmp/busy\" : Device or resource busy\n",
         "", "/tmp/busy", "firmware"},
        {"/var/busy", 600'000, // neither renamed, though on the same file system, nor copied
         "DEBUG:vos_fs:Can't move file from \"/var/busy\" to \"" + PLACED +
             "\" : Device or resource busy\n" + copy_line("/var/busy") + begin + "write dest " +
             to + "No space left on device\n",
         "", "/var/busy"},
    };
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    for (const char *busy : {"/tmp/busy", "/var/busy"}) {
        std::ofstream(busy) << "firmware"; // stays where it is: another mount holds it
        ASSERT_EQ(mount(busy, busy, nullptr, MS_BIND, nullptr), 0);
    }
    for (const auto &[path, size, failure, obstacle, stays, placed] : cases) {
        SCOPED_TRACE(path + failure);
        fs::remove_all("/var/ftp");
        if (obstacle.empty()) {
            fs::create_directory("/var/ftp");
            std::ofstream(PLACED) << "earlier";
        }
        if (size != 0 || path.ends_with("empty")) {
            std::ofstream(path) << std::string(size, 'x');
        }
        std::ofstream(obstacle) << "in the way";
        Peer modem;
        Process tool("-u " + path);
        tool.register_modem(modem);
        tool.expect(request_line(path));
        tool.expect(failure);
        const bool begun = !failure.empty() && path != "/tmp" && path != "/tmp/missing";
        tool.expect(text(begun ? "ERROR:app_lan:Can not move fw file %s to /var/ftp/a1b2c3\n"
                               : "ERROR:app_lan:Empty firmware for upgrade(%s), name:manual\n",
                         path.c_str()));
        EXPECT_EQ(hex(modem.receive(milliseconds(300))), "");
        EXPECT_EQ(fs::exists(path), path == stays);
        EXPECT_EQ(content_of(PLACED), placed);
        EXPECT_TRUE(stays.empty() || fs::exists(stays));
    }
}

TEST_F(Firmware, IsKeptAndItsInstallationWaitedFor)
{
    const struct {
        std::string arguments, path;
        std::size_t size;
        Bytes report; // none when empty
        std::string printed;
        int status;
        bool stays = true, placed = false;
    } cases[] = {
        {"--once --keep", "/tmp/fw", 10, "\1", "of modem a1b2c3 is OK \n", 0},
        {"--once", "/tmp/fw", 10, "\2", "of modem a1b2c3 is KO \n", 2, false},
        {"--once --keep --wait=1", "/tmp/fw", 10, "",
         "ERROR:app_main:No report of the installation within 1 seconds\n", 2, true, true},
        {"--keep --at " + address(1), "/tmp/fw", 10, "", RESULT + "2.04\n", 0, true, true},
        {"--keep --once", "/tmp/fw", 0, "", "ERROR:app_lan:Empty firmware for upgrade", 2},
        {"--keep --once", "/tmp/fw", 2'000'000, "",
         "ERROR:app_lan:Can not copy fw file /tmp/fw to " + PLACED + "\n", 2},
        {"--keep --once", PLACED, 10, "",
         "ERROR:app_lan:Can't keep " + PLACED + " : it is the file in place\n", 2, true, true},
    };
    for (const auto &[arguments, path, size, report, printed, status, stays, placed] : cases) {
        SCOPED_TRACE(arguments + printed);
        fs::remove_all("/var/ftp");
        fs::create_directory("/var/ftp");
        std::ofstream(path) << std::string(size, 'f');
        Peer modem, voice(1, 5684);
        Process tool(text("%s -u %s", arguments.c_str(), path.c_str()));
        if (arguments.find("--at") != std::string::npos) {
            modem.reply(encode(ACK, CONTENT, modem.expect_request("GET info_req"), "", "", info()));
        } else {
            tool.register_modem(voice, 5684);
        }
        if (printed.find("app_lan:") == std::string::npos) {
            const std::string request = "POST firmware_upgrade_req " + hex(little_endian(size, 4)) +
                                        "6 0 61 31 62 32 63 33 0";
            modem.reply(encode(ACK, CHANGED, modem.expect_request(request)));
        }
        if (!report.empty()) {
            voice.report("firmware_install_ind", report);
        }
        std::string all;
        EXPECT_EQ(tool.exit_status(all), status);
        EXPECT_NE(all.find(printed), std::string::npos) << all;
        EXPECT_EQ(content_of(path), stays ? std::string(size, 'f') : "-");
        EXPECT_EQ(content_of(PLACED), placed ? std::string(size, 'f') : "-");
    }
}

TEST_F(Files, DownloadSendsPacketsWithPauses)
{
    const std::string path = directory + "/upd.bin";
    const std::string packets[] = {std::string(64, '1'), std::string(64, '2')};
    std::ofstream(path) << packets[0] << packets[1];
    Peer modem;
    Process tool("-d upd.bin 64 -1 -d upd.bin 64 5");
    tool.register_modem(modem);
    modem.reply(encode(ACK, CHANGED, modem.expect_request("POST command_req 2")));
    tool.expect(RESULT + "2.04\nDEBUG:app_lan:Request donwnload  file " + path + "\n");
    for (const std::string &packet : packets) {
        const auto begin = std::chrono::steady_clock::now();
        const int id =
            modem.expect_request("PUT tx_msg_req 0 0 0 0 0 0 40 0 10 2 0 1B " + hex(packet));
        EXPECT_EQ(std::chrono::steady_clock::now() - begin >= milliseconds(90), &packet != packets);
        modem.reply(encode(ACK, CHANGED, id));
        tool.expect(text("DEBUG:app_lan:Send packet n %d\n", packet[0] - '0') + RESULT + "2.04\n");
    }
    EXPECT_EQ(hex(modem.receive(milliseconds(300))), "");
    EXPECT_EQ(content_of(path), packets[0] + packets[1]);
}

TEST_F(Files, DownloadArrivesWholeThoughAnswersGetLost)
{
    std::string content;
    for (std::uint32_t packet = 0; packet < 10'000; ++packet) {
        content += little_endian(std::size_t{packet} * 2654435761U, 4) + std::string(60, 'p');
    }
    std::ofstream("upd.bin") << content;
    rlimit few{};
    getrlimit(RLIMIT_NOFILE, &few);
    few.rlim_cur = 64; // descriptors: a request must not keep one
    setrlimit(RLIMIT_NOFILE, &few);
    Process modem("--address " + address(1) + " --announce-to " + address(0) +
                      " --announce-every 1 --rate 0 --fault lost --fault-every 4000 --collect got",
                  WMBUSCTL_SIM);
    modem.ignore_rest();
    Process tool("-d upd.bin 64 0");
    tool.ignore_rest();
    tool.skip_to("DEBUG:app_lan:Send packet n 10000\n", milliseconds(60'000));
    tool.skip_to("2.04\n");
    EXPECT_TRUE(content_of("got") == content);
}
} // namespace
} // namespace e2e
