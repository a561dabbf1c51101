#include "orxweb/pagesprograms.h"

#include <algorithm>

#include "orxweb/serverstate.h"
#include "orxweb/websettings.h"

namespace orx {

static Text StateText(const std::string &state)
{
    return state == "waiting"     ? Text::Waiting
           : state == "sleeping"  ? Text::Sleeping
           : state == "recording" ? Text::Playing
                                  : Text::Live;
}

// The name that people know it by.
static std::string CodecShown(const std::string &codec)
{
    return codec == "MPEG4-GENERIC" ? "AAC" : codec;
}

// "H264 1920×1080 · 25 pictures/s · 2.1 Mbit/s"
static std::string VideoText(const Page *pPage, const ProgramFacts &facts)
{
    std::string out = facts.videoCodec.empty() ? CodecShown(facts.audioCodec) : facts.videoCodec;
    if (facts.nWidth)
        out += " " + std::to_string(facts.nWidth) + "×" + std::to_string(facts.nHeight);
    if (facts.dFrameRate > 0)
        out +=
            " · " + NumberText(facts.dFrameRate, pPage->language) + " " + TextOf(Text::Rate, pPage->language);
    if (facts.dBitRate > 0)
        out += " · " + RateText(facts.dBitRate, pPage->language);
    return Html(out);
}

static std::string PlayersText(const Page *pPage, int nPlayers)
{
    return std::to_string(nPlayers) + " " + Say(pPage, nPlayers == 1 ? Text::Player : Text::Players);
}

static std::string StateLine(const Page *pPage, const ProgramFacts &facts)
{
    std::string out =
        "<span class=\"badge " + Html(facts.state) + "\">" + Say(pPage, StateText(facts.state)) + "</span>";
    if (facts.nRecordings)
        out += " <span class=\"badge rec\">" + Say(pPage, Text::Recording) + "</span>";
    return out + " <span class=\"count\">" + PlayersText(pPage, facts.nPlayers) + "</span>";
}

// A camera that sleeps is not woken for a picture on a tile.
static std::string TileImage(const Page *pPage, const ProgramFacts &facts)
{
    const std::string alt = Say(pPage, Text::PictureOf) + " " + Html(facts.program);
    int bShown = !facts.videoCodec.empty() && facts.state != "sleeping" && facts.state != "waiting";
    return "<img alt=\"" + alt + "\" width=\"320\" height=\"180\" loading=\"lazy\" src=\"" +
           (bShown ? UrlLive(facts.program) + ".jpg\" data-still=\"1\">"
                   : WebFileUrl("nopicture.svg") + "\">");
}

static std::string Tile(const Page *pPage, const ProgramFacts &facts, int bRecordings)
{
    std::string out = "<li data-program=\"" + Html(facts.program) + "\"><a class=\"tile\" href=\"" +
                      UrlLive(facts.program) + "\">" + TileImage(pPage, facts) + "<span class=\"name\">" +
                      Html(facts.program) + "</span><span class=\"state\">" + StateLine(pPage, facts) +
                      "</span><span class=\"codec\">" + VideoText(pPage, facts) + "</span></a>";
    if (bRecordings)
        out += "<a class=\"more\" href=\"" + UrlRecordings(facts.program) + "\" aria-label=\"" +
               Say(pPage, Text::RecordingsOf) + " " + Html(facts.program) + "\">" +
               Say(pPage, Text::Recordings) + "</a>";
    return out + "</li>\n";
}

// Programs that are not there, but have been.
static std::string AwayList(const Page *pPage, const std::vector<ClipDays> &days,
                            const std::vector<ProgramFacts> &programs)
{
    std::string out;
    for (const ClipDays &facts : days) {
        auto isIt = [&](const ProgramFacts &program) { return program.program == facts.program; };
        if (MaySee(pPage->pVisitor, facts.program) && std::none_of(programs.begin(), programs.end(), isIt))
            out +=
                "<li><a href=\"" + UrlRecordings(facts.program) + "\">" + Html(facts.program) + "</a></li>\n";
    }
    return out.empty() ? out
                       : "<h2>" + Say(pPage, Text::WithRecordings) + "</h2>\n<ul class=\"links\">\n" + out +
                             "</ul>\n";
}

WebAnswer PageHome(Page *pPage)
{
    auto pState = ServerStateNow();
    if (pState->answer.nStatus != 200)
        return PageSentence(503, pPage, Text::ServerAway);
    std::shared_ptr<const std::vector<ClipDays>> pDays;
    if (!ServerDays(&pDays))
        pDays = std::make_shared<std::vector<ClipDays>>();
    std::string tiles;
    for (const ProgramFacts &facts : pState->programs) {
        auto isIt = [&](const ClipDays &days) { return days.program == facts.program; };
        if (MaySee(pPage->pVisitor, facts.program))
            tiles += Tile(pPage, facts, std::any_of(pDays->begin(), pDays->end(), isIt));
    }
    pPage->kind = "home";
    pPage->heading = TextOf(Text::Programs, pPage->language);
    pPage->body = "<h1>" + Say(pPage, Text::Programs) + "</h1>\n<div id=\"fresh\" data-fresh=\"3\">\n" +
                  (tiles.empty() ? "<p>" + Say(pPage, Text::NoPrograms) + "</p>\n"
                                 : "<ul class=\"tiles\" data-filter=\"" + Say(pPage, Text::Filter) + "\">\n" +
                                       tiles + "</ul>\n") +
                  AwayList(pPage, *pDays, pState->programs) + "</div>\n";
    return PageAnswer(200, pPage);
}

// --- one program live ---

static std::string Row(const std::string &name, const std::string &value)
{
    return "<dt>" + name + "</dt><dd>" + value + "</dd>\n";
}

static std::string Details(const Page *pPage, const ProgramFacts &facts)
{
    const std::string &language = pPage->language;
    std::string picture = facts.videoCodec;
    if (facts.nWidth)
        picture += ", " + std::to_string(facts.nWidth) + "×" + std::to_string(facts.nHeight);
    if (facts.dFrameRate > 0)
        picture += ", " + NumberText(facts.dFrameRate, language) + " " + TextOf(Text::Rate, language);
    return "<dl id=\"fresh\" data-fresh=\"3\">\n" + Row(Say(pPage, Text::State), StateLine(pPage, facts)) +
           Row(Say(pPage, Text::Video), Html(picture)) +
           Row(Say(pPage, Text::Audio),
               facts.audioCodec.empty() ? Say(pPage, Text::NoAudio) : Html(CodecShown(facts.audioCodec))) +
           Row(Say(pPage, Text::DataRate), Html(RateText(facts.dBitRate, language))) + "</dl>\n";
}

// The one picture of the page: works without scripts, which take it over.
static std::string Picture(const Page *pPage, const ProgramFacts &facts)
{
    const std::string label = Say(pPage, Text::LiveOf) + " " + Html(facts.program);
    const std::string url = UrlLive(facts.program);
    int bImages = facts.videoCodec == "JPEG" || facts.videoCodec == "MJPEG";
    if (bImages)
        return "<img class=\"picture\" id=\"picture\" alt=\"" + label + "\" src=\"" + url + ".mjpeg\">\n";
    return "<video class=\"picture\" id=\"picture\" aria-label=\"" + label +
           "\" muted playsinline controls preload=\"none\" src=\"" + url + ".mp4\" poster=\"" + url +
           ".jpg\" data-codec=\"" + Html(facts.videoCodec) + "\"></video>\n";
}

WebAnswer PageLive(Page *pPage, const std::string &program)
{
    auto pState = ServerStateNow();
    if (pState->answer.nStatus != 200)
        return PageSentence(503, pPage, Text::ServerAway);
    auto isIt = [&](const ProgramFacts &facts) { return facts.program == program; };
    auto it = std::find_if(pState->programs.begin(), pState->programs.end(), isIt);
    const std::string recordings =
        "<a href=\"" + UrlRecordings(program) + "\">" + Say(pPage, Text::Recordings) + "</a>";
    if (it == pState->programs.end())
        return PageSentence(404, pPage, Text::NotLive, "<p>" + recordings + "</p>\n");
    pPage->kind = "live";
    pPage->heading = program;
    pPage->body =
        "<h1>" + Html(program) + "</h1>\n<div id=\"stage\">" + Picture(pPage, *it) +
        "<p id=\"report\" role=\"status\"></p></div>\n<div id=\"controls\" class=\"controls\"></div>\n"
        "<p class=\"links\">" +
        recordings + " <a href=\"" + UrlLive(program) + ".jpg\">" + Say(pPage, Text::StillPicture) +
        "</a></p>\n<h2>" + Say(pPage, Text::Details) + "</h2>\n" + Details(pPage, *it);
    return PageAnswer(200, pPage);
}

}  // namespace orx
