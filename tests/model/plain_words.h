// Names, texts and bytes that the plain model is told in.
#pragma once

#include <string>
#include <vector>

#include "platform_names.h"

namespace model {

// While the platform is away they are tried again for 5 s; the others go to the modem at once.
extern const std::vector<std::string> kWorthWaiting;

inline const std::string kNotRunning = "app-plat is not running, plz wait....\r\n";

std::string small(std::string text);
bool holds(const std::string& text, const std::string& word);
bool holds_any(const std::string& text, const std::vector<std::string>& words);
// Whatever the case of the text; the word is in small letters.
bool begins(const std::string& text, const std::string& word);
std::string up_to_nul(const std::string& bytes);

// Three heads of 8, 12 and 24 bytes, little-endian, then the payload.
std::string pack_bytes(unsigned kind, const std::string& payload, std::size_t content);
// What a connection to the platform begins with.
std::string port_report(int port);
// 3GPP TS 27.010, 5.2.1.6.
char check_sequence(const std::string& bytes);

}  // namespace model
