#include "orxctl/table.h"

#include <algorithm>
#include <cstdio>

namespace orx {

static std::string Format(const char *szFormat, double dValue)
{
    char text[64];
    snprintf(text, sizeof(text), szFormat, dValue);
    return text;
}

// In steps of a thousand, with two digits that count.
static std::string Scaled(double dValue, const char *const *ppUnits)
{
    int bWhole = 1;
    for (; dValue >= 999.5 && ppUnits[1]; ppUnits++) {
        dValue /= 1000;
        bWhole = 0;
    }
    return Format(dValue < 9.95 && !bWhole ? "%.1f " : "%.0f ", dValue) + *ppUnits;
}

static std::string Span(double dSeconds)
{
    auto n = static_cast<long long>(dSeconds);
    char text[64];
    if (n < 60)
        snprintf(text, sizeof(text), "%llds", n);
    else if (n < 3600)
        snprintf(text, sizeof(text), "%lldm%02llds", n / 60, n % 60);
    else if (n < 86400)
        snprintf(text, sizeof(text), "%lldh%02lldm", n / 3600, n / 60 % 60);
    else
        snprintf(text, sizeof(text), "%lldd%02lldh", n / 86400, n / 3600 % 24);
    return text;
}

std::string Harmless(const char *szText)
{
    std::string out;
    for (const char *p = szText; *p; p++) {
        auto c = static_cast<unsigned char>(*p);
        if (c == 0xC2 &&
            static_cast<unsigned char>(p[1]) < 0xA0) {  // U+0080 to U+009F command terminals, too
            out += '?';
            p++;
        } else {
            out += c < ' ' || c == 0x7F ? '?' : *p;
        }
    }
    return out;
}

static int IsContinuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

size_t TextColumns(const std::string &text)
{
    return text.size() - static_cast<size_t>(std::count_if(text.begin(), text.end(), IsContinuation));
}

std::string TextCut(const std::string &text, size_t nColumns)
{
    size_t nEnd = 0;
    for (size_t n = 0; nEnd < text.size(); nEnd++) {
        if (!IsContinuation(text[nEnd]) && n++ == nColumns)
            break;
    }
    return text.substr(0, nEnd);
}

static std::string NumberText(double dValue, CellForm eForm)
{
    static const char *const bytes[] = {"B", "kB", "MB", "GB", "TB", nullptr};
    static const char *const bits[] = {"bit/s", "kbit/s", "Mbit/s", "Gbit/s", nullptr};
    switch (eForm) {
        case CellForm::Bytes:
            return Scaled(dValue, bytes);
        case CellForm::BitRate:
            return Scaled(dValue, bits);
        case CellForm::Rate:
            return Format("%.1f", dValue);
        case CellForm::Percent:
            return Format("%.1f%%", dValue);
        case CellForm::Seconds:
            return Span(dValue);
        case CellForm::Millis:
            return dValue < 10000 ? Format("%.0f ms", dValue) : Span(dValue / 1000);
        case CellForm::Text:
        case CellForm::Count:
        case CellForm::Size:
            break;
    }
    return Format("%.0f", dValue);
}

std::string CellText(const json_t *pObject, const Column &column)
{
    if (column.eForm == CellForm::Size) {
        long long nWidth = json_integer_value(json_object_get(pObject, "width"));
        long long nHeight = json_integer_value(json_object_get(pObject, "height"));
        return nWidth && nHeight ? std::to_string(nWidth) + "x" + std::to_string(nHeight) : "-";
    }
    const json_t *pValue = json_object_get(pObject, column.szMember);
    if (json_is_string(pValue))
        return *json_string_value(pValue) ? Harmless(json_string_value(pValue)) : "-";
    if (json_is_boolean(pValue))
        return json_is_true(pValue) ? "yes" : "no";
    if (json_is_array(pValue))
        return std::to_string(json_array_size(pValue));
    return json_is_number(pValue) ? NumberText(json_number_value(pValue), column.eForm) : "-";
}

static std::string Line(const std::vector<std::string> &cells, const std::vector<Column> &columns,
                        const std::vector<size_t> &widths, size_t nWidth)
{
    std::string line;
    for (size_t i = 0; i < cells.size(); i++) {
        const std::string blanks(widths[i] - std::min(widths[i], TextColumns(cells[i])), ' ');
        int bLeft = columns[i].eForm == CellForm::Text;
        line += (i ? "  " : "") + (bLeft ? cells[i] + blanks : blanks + cells[i]);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return (nWidth ? TextCut(line, nWidth) : line) + "\n";
}

std::string TableText(const json_t *pList, const std::vector<Column> &columns, size_t nWidth)
{
    std::vector<std::vector<std::string>> rows(1);
    for (const Column &column : columns)
        rows[0].emplace_back(column.szTitle);
    for (size_t i = 0; i < json_array_size(pList); i++) {
        rows.emplace_back();
        for (const Column &column : columns)
            rows.back().push_back(CellText(json_array_get(pList, i), column));
    }
    std::vector<size_t> widths(columns.size());
    for (const auto &row : rows)
        for (size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], TextColumns(row[i]));
    std::string text;
    for (const auto &row : rows)
        text += Line(row, columns, widths, nWidth);
    return text;
}

}  // namespace orx
