// What dolm inspect shows of the members of a set and of their parts.
#include "dolm_process.h"

namespace {

using namespace dolm_process;

class DolmInspect : public Dolm {
  protected:
    void expect_shown(const std::string &arguments, int code, const std::string &part) const {
        const Outcome outcome = run("inspect " + arguments);
        EXPECT_EQ(outcome.code, code) << arguments;
        EXPECT_NE((outcome.out + outcome.err).find(part), std::string::npos)
            << arguments << "\n"
            << outcome.out << outcome.err;
    }
};

TEST_F(DolmInspect, KnowsMembersByTheirContent) {
    fs::create_directory(folder / "other");
    for (const char *member : {"orvel.cfg", "vync.cfg", "ftbl.bin", "qfs.img"}) {
        fs::copy(set / member, folder / "other" / (std::string("x") + member));
    }
    const std::pair<const char *, const char *> shown[] = {
        {"other/xorvel.cfg", "       32      0   14297      6    0000  , \"device\"\n"},
        {"other/xvync.cfg", "Configuration store of 217 bytes: 7 records"},
        {"other/xftbl.bin", "       33      1  0000  afs      33         6  /home/net/mac\n"},
        {"other/xqfs.img", "AFS image of 262144 bytes"},
        {"set/vync.cfg", "0000  /home/net/hostname, \"gateway-17\"\n"},
        {"set/ftbl.bin", "     2      1       0      6000\n"},
        {"set", "\nqfs.img: AFS image of 262144 bytes"},
        {"set", "\nefs.img: EFS image of 49152 bytes"},
    };
    for (const auto &[arguments, part] : shown) {
        expect_shown(arguments, 0, part);
    }
    write_whole(folder / "noise", std::string(3000, 'x'));
    expect_shown("noise", 2, "noise is like no member of a set");
    fs::resize_file(set / "orvel.cfg", 20000);
    expect_shown("set", 1, "Broken: orvel.cfg: the value of record 33 reaches past the end\n");
}

TEST_F(DolmInspect, ShowsAPartWithItsFields) {
    const std::pair<const char *, const char *> shown[] = {
        {"set --page 1", "file 32               chunk 2816\n"},
        {"set --page 0", "000676     4  total_va_size         195328\n"},
        {"set --page 2940", "page 2940 in EU 30, slot 10: 66 bytes at 0x03c320\n"},
        {"set --page 2940", "03c320  67 61 74 65 77 61 79 2d  31 37 00 "},
        {"set --page 2940", "crc16                 0x5CC9, good\n"},
        {"set --unit 30", "va_base               page 2930\n"},
        {"set/qfs.img --unit 0", "E[0]                  0x0B5B, page 0\n"},
        {"set/efs.img --unit 0", "entry 8               valid 8 9 0 7 1 4 6, spare 2 3 5, "
                                 "checksum good\n"},
        {"set --block 8", "00a010  1028  file 0                1024 bytes, checksum good\n"},
        {"set/efs.img --block 2", "footer                good\n"},
    };
    for (const auto &[arguments, part] : shown) {
        expect_shown(arguments, 0, part);
    }
    const std::pair<const char *, const char *> refused[] = {
        {"set --unit 32", "there is no EU 32; the image has 0 to 31"},
        {"set --page 3052", "there is no page 3052"},
        {"set --page 60", "page 60 has no copy"},
        {"set/efs.img --page 0", "it has units and blocks"},
        {"set/qfs.img --block 0", "it has units and pages"},
        {"set/ftbl.bin --unit 0", "has no pages, units or blocks"},
        {"set --unit 1 --block 1", "at most 1 options"},
    };
    for (const auto &[arguments, part] : refused) {
        expect_shown(arguments, 2, part);
    }
}

} // namespace
