// Every entry of every table, once more and in order: the road of a command changes with one
// misplaced letter, and the walks compare in this order.
#include "command_tables.h"

#include <sstream>

namespace {

constexpr char kPlatformCommands[] =
    "vexa_first_at at+tpin at+cpinr at+ccid at+csim at+gtusim at+cgsn at+gsn at+gtesim "
    "at+gtabc at+ccho at+cgla at+cchc AT+CGMR AT+GMR AT+CFSN AT+CGMI AT+GMI AT+CGMM AT+GMM "
    "AT+GTUSIM at+cesq at+csq at+ws46 at+CEMODE at+cpwroff at+reset at+diagen at+gtfmode "
    "at+creg at+cgreg at+cereg at+cgreg AT+GTUSBMODE AT+GTUSBDETECTEN AT+GTPCIE "
    "AT+GTINTFMODE AT+MTSM AT+GTGPSPOWER AT+GTGPSEPO AT+GTAGPSSERV AT+GTGPS AT+GTGPSCFG "
    "AT+GTGPSDELAID at+gtqxdmlog at+gtloglvl at+gtnaropen AT+GTCMCCDMEN AT+GTDATAREGEN "
    "AT+GTLPGSET AT+BODYSAREN AT+BODYSARON AT+BODYSAR AT+BODYSARCLEAR AT+BODYSARST "
    "AT+BODYSARMODE AT+BODYSARPROFILE AT+GTUDSET AT+GTUD AT+GTUDCHECK AT+GTDELTA AT+GTOTA "
    "AT+CLVL AT+CMUT AT+GTDTMF AT+MAVOL AT+MMICG AT+MAI2SY AT+GTAUDMODE AT+AUDPLAY "
    "AT+AUDREC AT+AUDRM AT+SYSCMD ate atq atv ati9 at+cmee ats0 ats3 ats4 ats5 ats24 "
    "AT+GTRNDIS AT+CGDCONT AT+MGAUTH AT+CGPADDR AT+GTDNS AT+GTWWAN AT+GTAUTOCONNECT "
    "AT+GTCONNECTMODE AT+GTWANDHCPCONF AT+GTAUTODHCP AT+GTENECM AT+GTMAPVLAN AT+GTDMZIP "
    "AT+GTIPPASS AT+GTMPDN AT+GTWAKE AT+GTUSBSLEEPEN AT+GTPMTIME AT+SLPMODE AT+GTDMSERV "
    "AT+CBWRITE AT+CB AT+GTEXITAPP AT+GTPING AT+GTDIAGSOCKET AT+GTMODEL vexa_end_at";

constexpr char kCommandsWorthWaitingFor[] =
    "AT+GTDNS AT+GTRNDIS AT+GTWWAN AT+GTAUTOCONNECT AT+GTCONNECTMODE AT+GTWANDHCPCONF "
    "AT+GTAUTODHCP AT+GTENECM AT+GTMAPVLAN AT+GTDMZIP AT+GTMPDN AT+GTIPPASS AT+GTWAKE "
    "AT+GTLPMMODE AT+GTPMTIME AT+GTUSBSLEEPEN AT+GTUSBMODE AT+GTFMODE AT+WRIM AT+SLPMODE "
    "AT+BODYSAREN AT+BODYSARON AT+BODYSAR AT+BODYSARCLEAR AT+BODYSARST AT+BODYSARMODE "
    "AT+BODYSARPROFILE AT+CPWROFF AT+RESET AT+DIAGEN AT+GTAUDMODE AT+GTDTMF AT+AUDPLAY "
    "AT+AUDREC AT+AUDRM AT+MAVOL AT+MMICG AT+MAI2SY AT+CLVL AT+CMUT AT+GTESIM AT+GTABC "
    "AT+GTUSIM AT+SYSCMD AT+MTSM AT+GTUSBDETECTEN AT+GTPCIE AT+GTGPSPOWER AT+GTGPS "
    "AT+GTGPSEPO AT+GTAGPSSERV AT+GTGPSCFG AT+GTGPSDELAID AT+GTOTA AT+GTUDSET AT+GTUD "
    "AT+GTUDCHECK AT+GTDELTA AT+GTQXDMLOG AT+GTLOGLVL AT+GTDMSERV AT+GTLPGSET AT+GTCMCCDMEN "
    "AT+GTDATAREGEN AT+CBWRITE AT+CB AT+GTNAROPEN AT+GTEXITAPP AT+ESIM";

std::vector<std::string> words(const char* text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

template <std::size_t size>
std::vector<std::string> entries(const std::array<const char*, size>& table) {
    return {table.begin(), table.end()};
}

TEST(CommandTables, PlatformCommands) {
    EXPECT_EQ(hijack_atcmd_talbe.size(), 110U);
    EXPECT_EQ(entries(hijack_atcmd_talbe), words(kPlatformCommands));
}

TEST(CommandTables, CgregStandsTwice) {
    EXPECT_STREQ(hijack_atcmd_talbe[30], "at+cgreg");
    EXPECT_STREQ(hijack_atcmd_talbe[32], "at+cgreg");
}

TEST(CommandTables, CommandsThatCpMustSeeToo) {
    EXPECT_EQ(entries(fwd_exc_atcmd_talbe),
              words("exc_fwd_first_at ate atq atv ats0 ats3 ats4 ats5 ats24 at+cmee "
                    "exc_fwd_first_end"));
}

TEST(CommandTables, CommandsThatChangeTheMode) {
    EXPECT_EQ(entries(smsmode_atcmd_talbe),
              words("smsmode_first_at AT+CMGS AT+CMGW smsmode_first_end"));
    EXPECT_EQ(entries(hexmode_atcmd_talbe), words("hexmode_first_at hexmode_first_end"));
    EXPECT_EQ(entries(cmuxmode_atcmd_talbe), words("cmuxmode_first_at AT+CMUX cmuxmode_first_end"));
}

TEST(CommandTables, CommandsWorthWaitingFor) {
    EXPECT_EQ(ght_at_table.size(), 69U);
    EXPECT_EQ(entries(ght_at_table), words(kCommandsWorthWaitingFor));
}

}  // namespace
