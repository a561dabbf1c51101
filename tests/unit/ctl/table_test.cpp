// What orxctl makes of the server's answers.
#include <gtest/gtest.h>
#include <jansson.h>

#include "orxctl/socket.h"
#include "orxctl/table.h"
#include "orxctl/views.h"

using namespace orx;

namespace {

struct Json {
    json_t *p;
    explicit Json(const char *szText) : p(json_loads(szText, 0, nullptr)) {}
    ~Json() { json_decref(p); }
};

TEST(CtlTable, GivesFiguresTheirUnits)
{
    const struct {
        const char *szValue;
        CellForm eForm;
        const char *szShown;
    } cases[] = {
        {"0", CellForm::Bytes, "0 B"},
        {"999", CellForm::Bytes, "999 B"},
        {"1000", CellForm::Bytes, "1.0 kB"},
        {"1540000", CellForm::Bytes, "1.5 MB"},
        {"9999999", CellForm::Bytes, "10 MB"},
        {"999999", CellForm::Bytes, "1.0 MB"},
        {"4100000", CellForm::BitRate, "4.1 Mbit/s"},
        {"59", CellForm::Seconds, "59s"},
        {"185", CellForm::Seconds, "3m05s"},
        {"7800", CellForm::Seconds, "2h10m"},
        {"356400", CellForm::Seconds, "4d03h"},
        {"40", CellForm::Millis, "40 ms"},
        {"90000", CellForm::Millis, "1m30s"},
        {"1.25", CellForm::Percent, "1.2%"},
        {"null", CellForm::Count, "-"},
        {"true", CellForm::Text, "yes"},
        {"[1,2]", CellForm::Count, "2"},
        {"\"a\\u001b[2Jb\\u009bc\\nd\"", CellForm::Text, "a?[2Jb?c?d"},
        {"\"caf\\u00e9\"", CellForm::Text, "caf\u00e9"},
    };
    for (const auto &c : cases) {
        Json object((std::string("{\"v\":") + c.szValue + "}").c_str());
        EXPECT_EQ(c.szShown, CellText(object.p, {"", "v", c.eForm})) << c.szValue;
    }
}

TEST(CtlTable, LinesUpAndCutsByCharacters)
{
    Json list(R"([{"n":"caf\u00e9","c":5},{"n":"a","c":12345}])");
    const std::vector<Column> columns = {{"NAME", "n", CellForm::Text}, {"COUNT", "c", CellForm::Count}};
    EXPECT_EQ("NAME  COUNT\ncaf\u00e9      5\na     12345\n", TableText(list.p, columns, 0));
    EXPECT_EQ("NAME\ncaf\u00e9\na\n", TableText(list.p, {columns[0]}, 4));
    EXPECT_EQ("NAM\ncaf\na\n", TableText(list.p, {columns[0]}, 3));
}

TEST(CtlViews, SayWhatIsMissing)
{
    Json empty("{}");
    EXPECT_EQ("Nothing is pushed or played.\n", ViewPrograms(empty.p, 0));
    EXPECT_EQ("Nobody is connected.\n", ViewSessions(empty.p, 0));
    EXPECT_NE(std::string::npos, ViewStatus(empty.p, 80).find("Orx -"));
    EXPECT_EQ("live/cam%201%26%23%E4", CtlEscape("live/cam 1&#\xE4"));
}

}  // namespace
