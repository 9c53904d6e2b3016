#include "plain_words.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>

namespace model {
namespace {

std::string number_bytes(std::uint32_t number) {
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(number >> shift & 0xFF);
    }
    return bytes;
}

}  // namespace

const std::vector<std::string> kWorthWaiting{
    "at+gtdns",         "at+gtrndis",       "at+gtwwan",
    "at+gtautoconnect", "at+gtconnectmode", "at+gtwandhcpconf",
    "at+gtautodhcp",    "at+gtenecm",       "at+gtmapvlan",
    "at+gtdmzip",       "at+gtmpdn",        "at+gtippass",
    "at+gtwake",        "at+gtlpmmode",     "at+gtpmtime",
    "at+gtusbsleepen",  "at+gtusbmode",     "at+gtfmode",
    "at+wrim",          "at+slpmode",       "at+bodysaren",
    "at+bodysaron",     "at+bodysar",       "at+bodysarclear",
    "at+bodysarst",     "at+bodysarmode",   "at+bodysarprofile",
    "at+cpwroff",       "at+reset",         "at+diagen",
    "at+gtaudmode",     "at+gtdtmf",        "at+audplay",
    "at+audrec",        "at+audrm",         "at+mavol",
    "at+mmicg",         "at+mai2sy",        "at+clvl",
    "at+cmut",          "at+gtesim",        "at+gtabc",
    "at+gtusim",        "at+syscmd",        "at+mtsm",
    "at+gtusbdetecten", "at+gtpcie",        "at+gtgpspower",
    "at+gtgps",         "at+gtgpsepo",      "at+gtagpsserv",
    "at+gtgpscfg",      "at+gtgpsdelaid",   "at+gtota",
    "at+gtudset",       "at+gtud",          "at+gtudcheck",
    "at+gtdelta",       "at+gtqxdmlog",     "at+gtloglvl",
    "at+gtdmserv",      "at+gtlpgset",      "at+gtcmccdmen",
    "at+gtdataregen",   "at+cbwrite",       "at+cb",
    "at+gtnaropen",     "at+gtexitapp",     "at+esim",
};

std::string small(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

bool holds(const std::string& text, const std::string& word) {
    return text.find(word) != std::string::npos;
}

bool holds_any(const std::string& text, const std::vector<std::string>& words) {
    return std::any_of(words.begin(), words.end(),
                       [&](const std::string& word) { return holds(text, word); });
}

bool begins(const std::string& text, const std::string& word) {
    return small(text.substr(0, word.size())) == word;
}

std::string up_to_nul(const std::string& bytes) {
    return bytes.substr(0, bytes.find('\0'));
}

std::string pack_bytes(unsigned kind, const std::string& payload, std::size_t content) {
    std::string bytes = "kcap" + number_bytes(static_cast<std::uint32_t>(44 + payload.size()));
    bytes += std::string(12, '\0') + number_bytes(kind) + std::string(12, '\0');
    return bytes + number_bytes(static_cast<std::uint32_t>(content)) + std::string(4, '\0') +
           payload;
}

std::string port_report(int port) {
    constexpr std::array<std::uint32_t, 3> kNumbers{0, 1, 4};
    return pack_bytes(4, number_bytes(kNumbers[static_cast<std::size_t>(port)]), 0);
}

char check_sequence(const std::string& bytes) {
    unsigned rest = 0xFF;
    for (const char byte : bytes) {
        rest ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit) {
            rest = (rest & 1) != 0 ? rest >> 1 ^ 0xE0 : rest >> 1;
        }
    }
    return static_cast<char>(0xFF - rest);
}

}  // namespace model
