// The pages that "dolm report" writes. How a browser takes them is tests/report_browser's to see.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "dolm_process.h"

namespace {

using namespace dolm_process;
using Json = nlohmann::json;

size_t count(const std::string &text, const std::string &part) {
    size_t found = 0;
    for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1)) {
        ++found;
    }
    return found;
}

class ReportTest : public Dolm {
  protected:
    // The page, which has the figures that check and the command itself tell.
    std::string page(const std::string &arguments = "") const {
        const Outcome told = run("report set --json -o page.html " + arguments);
        EXPECT_EQ(told.code, 0) << told.err;
        const Json check = Json::parse(run("check set --json").out);
        const Json report = Json::parse(told.out);
        std::string html = read_whole(folder / "page.html");
        for (const char *kind : {"error", "note"}) {
            const std::string item = std::string("<li class=\"item ") + kind + "\">";
            const std::string all = std::string(kind) + "s";
            EXPECT_EQ(check[all], count(html, item));
            EXPECT_EQ(check[all], report[all]);
        }
        EXPECT_EQ(report["nvars"], count(html, "<tr class=\"item"));
        return html;
    }
};

TEST_F(ReportTest, IsTheSameEachTimeAndLeavesTheSetAlone) {
    const Folder before = snapshot(set);
    const std::string first = page();
    EXPECT_EQ(first, page());
    EXPECT_EQ(run("report set -o -").out, first);
    EXPECT_EQ(snapshot(set), before);
    EXPECT_EQ(run("report set -o - --json").code, 2);
    EXPECT_EQ(run("report none -o page.html").code, 1);
    EXPECT_EQ(run("report set -o none/page.html").code, 1);
}

TEST_F(ReportTest, ComparesWithAnotherSet) {
    ASSERT_EQ(run("set set -o other net/ntp time.example audio/boot_sound hex:0102").code, 0);
    ASSERT_EQ(run("report set --against other -o page.html").code, 0);
    const std::string against = read_whole(folder / "page.html");
    EXPECT_EQ(count(against, " different\""), 2u);
    EXPECT_NE(against.find("&quot;time.example&quot;"), against.npos);
    EXPECT_NE(against.find("<b>2</b> not as in other"), against.npos);
    EXPECT_EQ(count(page(), " different\""), 0u);
}

TEST_F(ReportTest, NothingOfTheSetBecomesMarkup) {
    const std::string markup = "<b onclick=\"x\">&'";
    ASSERT_EQ(run("set set net/ntp '<b onclick=\"x\">&'\\'").code, 0);
    std::string table = read_whole(set / "ftbl.bin");
    const std::string name = "/home/net/dns";
    for (size_t at = table.find(name); at != table.npos; at = table.find(name)) {
        table.replace(at, name.size(), "/home/<i>\xFF\x01&\"");
    }
    write_whole(set / "ftbl.bin", table);
    const std::string html = page();
    EXPECT_EQ(html.find(markup), html.npos);
    EXPECT_NE(html.find("&lt;b onclick=&quot;x&quot;&gt;&amp;'"), html.npos);
    EXPECT_NE(html.find("/home/&lt;i&gt;\\xff\\x01&amp;&quot;"), html.npos);
    EXPECT_EQ(html.find('\xFF'), html.npos);
}

// What the library refuses is read without it: no value is lost that a table or an image still has.
TEST_F(ReportTest, ShowsWhatIsLeftOfADamagedSet) {
    const std::string sound = page();
    const size_t nvars = count(sound, "<tr class=\"item");
    std::string image = read_whole(set / "qfs.img");
    image.replace(0, 40, 40, '\0');
    write_whole(set / "qfs.img", image);
    std::string html = page();
    EXPECT_NE(html.find("does not start up"), html.npos);
    EXPECT_EQ(count(html, "<tr class=\"item"), nvars);
    EXPECT_NE(html.find("&quot;gateway-17&quot;"), html.npos) << "the override";
    EXPECT_NE(html.find("&quot;2026-04-02&quot;"), html.npos) << "from EFS alone";
    EXPECT_NE(html.find("role-damaged"), html.npos);

    for (const char *member : {"ftbl.bin", "efs.img", "qfs.img", "vync.cfg", "orvel.cfg"}) {
        fs::remove(set / member);
        html = page();
        EXPECT_NE(html.find("</html>"), html.npos) << member;
    }
    EXPECT_EQ(count(html, "<tr class=\"item"), 0u);
}

} // namespace
