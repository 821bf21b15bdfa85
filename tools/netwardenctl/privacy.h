// What leaves the robot in a report says nothing of the home's secrets: passwords, the names of
// networks, hardware addresses.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

class Privacy {
  public:
    // Hides it wherever it stands, in every form in which the robot writes such a text.
    void hide(const std::string &secret);
    // Hides the secrets that a supplicant's file holds.
    void hide_those_of(const std::string &supplicant_file);

    // The text fit for a report: besides what is to be hidden, whatever stands behind the name of a
    // password or of a network's name, and hardware addresses, which get the same name wherever
    // they stand. What drives terminals is escaped.
    std::string clean(const std::string &text);
    std::string clean_line(std::string_view line);

  private:
    void name_addresses(std::string &line);
    void hide_known(std::string &line) const;

    std::vector<std::string> known_;  // lower case, the longest first
    std::map<std::string, std::string> addresses_;
};

}  // namespace ctl
