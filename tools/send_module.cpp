#include <arpa/inet.h>
#include <limits.h>
#include <qvapi_cpp.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include "command_line.h"
#include "deliveries.h"
#include "verbs.h"

namespace Quorvel {
namespace {

struct ModuleOptions {
    int mid = 0;
    int sid = 1;
    int ifid = 1;
    std::string fip = "127.0.0.1";
    std::string mip = "127.0.0.1";
    std::string sip = "127.0.0.1";
    int retval = 0;
    int result = 0;
    int delay = 0;
    int reqLen = 0;
    int rspLen = 0;
    bool text = false;
};

std::string addressFault(const std::string& text) {
    in_addr address;
    return inet_pton(AF_INET, text.c_str(), &address) == 1 ? "" : text + " is no IPv4 address";
}

int sendModule(ModuleOptions& o) {
    CLogger logger;
    if (logger.init(o.mid) != QV_ERR_OK) {
        throw std::runtime_error(logger.get_errmsg());
    }
    const int code =
        o.text ? logger.write_modulelog_forIM(o.sid, o.ifid, o.fip, o.mip, o.sip, o.retval,
                                              o.result, o.delay, o.reqLen, o.rspLen)
               : logger.write_modulelog(o.sid, o.ifid, o.fip, o.mip, o.sip, o.retval, o.result,
                                        o.delay, o.reqLen, o.rspLen);
    Deliveries deliveries;
    deliveries.add(code, logger.get_errmsg(), 0);
    deliveries.report();
    return deliveries.allAccepted() ? 0 : 1;
}

}  // namespace

void addSendModuleVerb(CLI::App& send, int& status) {
    const auto options = std::make_shared<ModuleOptions>();
    CLI::App* verb = send.add_subcommand(
        "module", "Write a module-invocation record over UDP, binary or as text.");
    verb->footer(
        "Reports what became of the record, as qvctl send does.\n"
        "Example: qvctl send module 7 --sid 8 --ifid 3 --result 5 --delay 12\n"
        "Exit status: 0 accepted, 1 lost, 2 wrong usage.");
    addNumber(*verb, "MID", options->mid, 1, INT_MAX, "The module's id")->type_name("")->required();
    verb->add_flag("--text", options->text, "Write key=value text instead of the binary record");
    const std::tuple<const char*, int ModuleOptions::*, int, const char*> numbers[] = {
        {"--sid", &ModuleOptions::sid, 1, "The other party's id"},
        {"--ifid", &ModuleOptions::ifid, 1, "The interface's id"},
        {"--retval", &ModuleOptions::retval, INT_MIN, "The call's return value"},
        {"--result", &ModuleOptions::result, INT_MIN, "The call's result"},
        {"--delay", &ModuleOptions::delay, 0, "How long the call took"},
        {"--reqlen", &ModuleOptions::reqLen, 0, "The request's size"},
        {"--rsplen", &ModuleOptions::rspLen, 0, "The response's size"}};
    for (const auto& [name, member, min, help] : numbers) {
        int& number = (*options).*member;
        addNumber(*verb, name, number, min, INT_MAX, help)->default_str(std::to_string(number));
    }
    const std::pair<const char*, std::string ModuleOptions::*> addresses[] = {
        {"--fip", &ModuleOptions::fip},
        {"--mip", &ModuleOptions::mip},
        {"--sip", &ModuleOptions::sip}};
    for (const auto& [name, member] : addresses) {
        verb->add_option(name, (*options).*member, "IPv4 address")
            ->check(addressFault)
            ->type_name("ADDRESS")
            ->capture_default_str();
    }
    verb->callback([options, &status] { status = sendModule(*options); });
}

}  // namespace Quorvel
