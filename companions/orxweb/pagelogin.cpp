#include "orxweb/pagelogin.h"

namespace orx {

WebAnswer PageLogin(int nStatus, Page *pPage, const std::string &name, const std::string &target, Text alert,
                    int nWaitSeconds)
{
    pPage->kind = "login";
    pPage->heading = TextOf(Text::Login, pPage->language);
    std::string sentence;
    if (alert != Text::Count)
        sentence = "<p role=\"alert\">" + Say(pPage, alert) +
                   (nWaitSeconds ? std::to_string(nWaitSeconds) : std::string()) + "</p>\n";
    pPage->body =
        "<h1>" + Say(pPage, Text::Login) + "</h1>\n" + sentence +
        "<form class=\"login\" method=\"post\" action=\"/login\">\n<input type=\"hidden\" name=\"to\" "
        "value=\"" +
        Html(target) + "\">\n<label for=\"name\">" + Say(pPage, Text::Name) +
        "</label>\n<input id=\"name\" name=\"name\" value=\"" + Html(name) +
        "\" autocomplete=\"username\" autocapitalize=\"none\" maxlength=\"127\" required" +
        (name.empty() ? " autofocus" : "") + ">\n<label for=\"password\">" + Say(pPage, Text::Password) +
        "</label>\n<input id=\"password\" name=\"password\" type=\"password\" "
        "autocomplete=\"current-password\" maxlength=\"127\"" +
        (name.empty() ? "" : " autofocus") + ">\n<button>" + Say(pPage, Text::Login) + "</button>\n</form>\n";
    WebAnswer answer = PageAnswer(nStatus, pPage);
    if (nStatus == 429)
        WebHeader(&answer, "Retry-After", std::to_string(nWaitSeconds));
    if (nStatus == 503)
        WebHeader(&answer, "Retry-After", "5");
    return answer;
}

}  // namespace orx
