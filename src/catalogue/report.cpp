#include <vlk/catalogue/report.hpp>

#include <iostream>

namespace vlk {

void appendReport(std::string& text, const error_id& id, const error_description& texts) {
    text += "VELK Message ";
    appendErrorId(text, id);
    text += " [level = ";
    text += logLevelName(id.level).view();
    text += "]\n\n    DESCRIPTION : ";
    text += texts.description;
    text += "\n\n    ACTION      : ";
    text += texts.action;
    text += '\n';
}

}  // namespace vlk

void displayError(const vlk::error_id& id, const vlk::error_description& text) {
    std::string report;
    report.reserve(1024);
    vlk::appendReport(report, id, text);
    std::cout << report << std::endl;
}
