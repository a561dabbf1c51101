#include "orxweb/texts.h"

#include <string_view>

#include "base/jsontext.h"

namespace orx {

struct TextRow {
    Text text;
    const char *szScript;  // its name for scripts, or null
    const char *szEnglish;
    const char *szGerman;
};

static const TextRow g_texts[] = {
    {Text::Programs, nullptr, "Programs", "Programme"},
    {Text::Recordings, nullptr, "Recordings", "Aufnahmen"},
    {Text::RecordingsOf, nullptr, "Recordings of", "Aufnahmen von"},
    {Text::System, nullptr, "System", "System"},
    {Text::Login, nullptr, "Log in", "Anmelden"},
    {Text::Logout, nullptr, "Log out", "Abmelden"},
    {Text::Name, nullptr, "Name", "Name"},
    {Text::Password, nullptr, "Password", "Passwort"},
    {Text::WrongPassword, nullptr, "Name or password is wrong.", "Name oder Passwort ist falsch."},
    {Text::TooMany, nullptr, "Too many wrong passwords. Seconds to wait: ",
     "Zu viele falsche Passwörter. Sekunden bis zum nächsten Versuch: "},
    {Text::ServerAway, nullptr, "The server does not answer. Please try again in a moment.",
     "Der Server antwortet nicht. Bitte gleich noch einmal versuchen."},
    {Text::NotFound, nullptr, "There is nothing here.", "Hier ist nichts."},
    {Text::Forbidden, nullptr, "This account may not see that.", "Dieses Konto darf das nicht sehen."},
    {Text::ForeignPost, nullptr, "That did not come from a page of this server.",
     "Das kam nicht von einer Seite dieses Servers."},
    {Text::NoPrograms, nullptr, "No program is there at the moment.", "Zurzeit ist kein Programm da."},
    {Text::NoRecordings, nullptr, "There are no recordings.", "Es gibt keine Aufnahmen."},
    {Text::NoRecordingsDay, nullptr, "No recordings on this day.", "An diesem Tag keine Aufnahmen."},
    {Text::WithRecordings, nullptr, "Away, with recordings", "Nicht da, mit Aufnahmen"},
    {Text::PictureOf, nullptr, "Picture of", "Bild von"},
    {Text::Live, nullptr, "live", "live"},
    {Text::Waiting, nullptr, "waiting for the camera", "wartet auf die Kamera"},
    {Text::Sleeping, nullptr, "asleep", "schläft"},
    {Text::Playing, nullptr, "a recording is played", "spielt eine Aufnahme"},
    {Text::Player, nullptr, "player", "Zuschauer"},
    {Text::Players, nullptr, "players", "Zuschauer"},
    {Text::Recording, nullptr, "recording", "Aufnahme läuft"},
    {Text::SkipToMain, nullptr, "To the content", "Zum Inhalt"},
    {Text::MainMenu, nullptr, "Main menu", "Hauptmenü"},
    {Text::CodecUnknown, nullptr,
     "Browsers cannot show this codec: ", "Browser können diesen Codec nicht zeigen: "},
    {Text::NotLive, nullptr, "This program is not there at the moment.",
     "Dieses Programm ist zurzeit nicht da."},
    {Text::LiveOf, nullptr, "Live picture of", "Livebild von"},
    {Text::Details, nullptr, "Details", "Einzelheiten"},
    {Text::State, nullptr, "State", "Zustand"},
    {Text::Video, nullptr, "Picture", "Bild"},
    {Text::Audio, nullptr, "Sound", "Ton"},
    {Text::NoAudio, nullptr, "none", "keiner"},
    {Text::DataRate, nullptr, "Data rate", "Datenrate"},
    {Text::Rate, nullptr, "pictures/s", "Bilder/s"},
    {Text::StillPicture, nullptr, "Still picture", "Standbild"},
    {Text::Filter, nullptr, "Filter by name", "Nach Namen filtern"},
    {Text::Days, nullptr, "Days", "Tage"},
    {Text::TimeLine, nullptr, "Time line of", "Zeitleiste von"},
    {Text::PlayFrom, nullptr, "Play from", "Abspielen ab"},
    {Text::PlayFromTime, nullptr, "Play from date and time", "Abspielen ab Datum und Uhrzeit"},
    {Text::Download, nullptr, "Download", "Herunterladen"},
    {Text::Start, nullptr, "Start", "Beginn"},
    {Text::Length, nullptr, "Length", "Dauer"},
    {Text::Size, nullptr, "Size", "Größe"},
    {Text::Kind, nullptr, "Kind", "Art"},
    {Text::KindScheduled, nullptr, "scheduled", "nach Plan"},
    {Text::KindAlarm, nullptr, "alarm", "Alarm"},
    {Text::KindManual, nullptr, "manual", "von Hand"},
    {Text::KindUnknown, nullptr, "unknown", "unbekannt"},
    {Text::BeingRecorded, nullptr, "being recorded", "läuft noch"},
    {Text::Interrupted, nullptr, "interrupted", "abgebrochen"},
    {Text::ThisRecording, nullptr, "Recording from", "Aufnahme von"},
    {Text::Actions, nullptr, "Actions", "Aktionen"},
    {Text::Storage, nullptr, "Storage", "Speicher"},
    {Text::Free, nullptr, "Free", "Frei"},
    {Text::Oldest, nullptr, "Oldest day", "Ältester Tag"},
    {Text::Newest, nullptr, "Newest day", "Neuester Tag"},
    {Text::Answers, nullptr, "Disk answers", "Platte antwortet"},
    {Text::Writable, nullptr, "Writable", "Beschreibbar"},
    {Text::Yes, nullptr, "yes", "ja"},
    {Text::No, nullptr, "no", "nein"},
    {Text::Version, nullptr, "Version", "Version"},
    {Text::Uptime, nullptr, "Running for", "Läuft seit"},
    {Text::Doubts, nullptr, "Doubts about the configuration", "Zweifel an der Konfiguration"},
    {Text::NoDoubts, nullptr, "None.", "Keine."},
    {Text::RefusesStart, nullptr, "refuses a strict start", "verhindert einen strengen Start"},
    {Text::Listeners, nullptr, "Listeners", "Lauschende Dienste"},
    {Text::Address, nullptr, "Address", "Adresse"},
    {Text::Listening, nullptr, "Listening", "Lauscht"},
    {Text::Sessions, nullptr, "Sessions", "Sitzungen"},
    {Text::Role, nullptr, "Role", "Rolle"},
    {Text::User, nullptr, "User", "Benutzer"},
    {Text::Program, nullptr, "Program", "Programm"},
    {Text::Transport, nullptr, "Transport", "Transport"},
    {Text::Sent, nullptr, "Sent", "Gesendet"},
    {Text::Received, nullptr, "Received", "Empfangen"},
    {Text::Loss, nullptr, "Loss", "Verlust"},
    {Text::LogTail, nullptr, "End of the log", "Ende des Protokolls"},
    {Text::NoLog, nullptr, "There is no log file.", "Es gibt keine Protokolldatei."},
    {Text::Directory, nullptr, "Directory", "Verzeichnis"},
    {Text::JsConnecting, "connecting", "Connecting …", "Verbinde …"},
    {Text::JsLive, "live", "Live", "Live"},
    {Text::JsDelay, "delay", "behind: {0} s", "Rückstand: {0} s"},
    {Text::JsStalls, "stalls", "stalls: {0}", "Stockungen: {0}"},
    {Text::JsEnded, "ended", "The picture has ended; trying again in {0} s.",
     "Das Bild ist zu Ende; neuer Versuch in {0} s."},
    {Text::JsNoCodec, "noCodec", "This browser cannot show the codec {0}.",
     "Dieser Browser kann den Codec {0} nicht zeigen."},
    {Text::JsNoMse, "noMse", "This browser plays the stream by itself; the delay is not watched.",
     "Dieser Browser spielt den Strom selbst; der Rückstand wird nicht beachtet."},
    {Text::JsSound, "sound", "Sound on", "Ton an"},
    {Text::JsMute, "mute", "Sound off", "Ton aus"},
    {Text::JsNewest, "newest", "To the newest picture", "Zum neuesten Bild"},
    {Text::JsFullScreen, "fullScreen", "Full screen", "Vollbild"},
    {Text::JsMaking, "making", "The recording is being prepared …", "Die Aufnahme wird vorbereitet …"},
    {Text::JsSpeed, "speed", "Speed", "Tempo"},
    {Text::JsShown, "shown", "Time line shows", "Zeitleiste zeigt"},
    {Text::JsBack, "back", "{0} s back", "{0} s zurück"},
    {Text::JsForward, "forward", "{0} s forward", "{0} s vor"},
    {Text::JsPause, "pause", "Pause", "Pause"},
    {Text::JsPaused, "paused", "Paused", "Angehalten"},
    {Text::JsPlay, "play", "Play", "Abspielen"},
    {Text::JsPrevious, "previous", "Previous recording", "Vorige Aufnahme"},
    {Text::JsNext, "next", "Next recording", "Nächste Aufnahme"},
    {Text::JsBroken, "broken", "This recording cannot be played.",
     "Diese Aufnahme kann nicht abgespielt werden."},
    {Text::JsAway, "away", "No connection to the server.", "Keine Verbindung zum Server."},
    {Text::JsKeys, "keys", "Keys: space plays and pauses, arrows seek by 10 s, + and − change the speed.",
     "Tasten: Leertaste spielt und hält an, Pfeile springen um 10 s, + und − ändern das Tempo."},
    {Text::JsKeysLive, "keysLive", "Keys: M sound, F full screen, N newest picture.",
     "Tasten: M Ton, F Vollbild, N neuestes Bild."},
};

static_assert(sizeof(g_texts) / sizeof(g_texts[0]) == static_cast<size_t>(Text::Count),
              "every text has its row");

const char *TextOf(Text text, const std::string &language)
{
    const TextRow &row = g_texts[static_cast<size_t>(text)];
    return language == "de" ? row.szGerman : row.szEnglish;
}

std::string TextsForScripts(const std::string &language)
{
    JsonText json;
    JsonOpen(&json, nullptr);
    for (const TextRow &row : g_texts)
        if (row.szScript)
            JsonString(&json, row.szScript, language == "de" ? row.szGerman : row.szEnglish);
    JsonClose(&json);
    std::string out(json.sz ? json.sz : "", json.nLen);
    JsonFree(&json);
    return out;
}

}  // namespace orx
