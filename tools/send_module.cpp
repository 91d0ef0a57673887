#include <qvapi_cpp.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

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
    if (code != QV_ERR_OK) {
        std::cerr << "qvctl: record lost with code " << code << ": " << logger.get_errmsg() << '\n';
        return 1;
    }
    std::cout << "accepted: 1" << std::endl;
    return 0;
}

}  // namespace

void addSendModuleVerb(CLI::App& send, int& status) {
    const auto options = std::make_shared<ModuleOptions>();
    CLI::App* verb = send.add_subcommand(
        "module", "Write a module-invocation record over UDP, binary or as text.");
    verb->add_option("MID", options->mid, "The module's id, 1 and more")->type_name("")->required();
    verb->add_flag("--text", options->text, "Write key=value text instead of the binary record");
    const std::pair<const char*, int ModuleOptions::*> numbers[] = {
        {"--sid", &ModuleOptions::sid},       {"--ifid", &ModuleOptions::ifid},
        {"--retval", &ModuleOptions::retval}, {"--result", &ModuleOptions::result},
        {"--delay", &ModuleOptions::delay},   {"--reqlen", &ModuleOptions::reqLen},
        {"--rsplen", &ModuleOptions::rspLen}};
    for (const auto& [name, member] : numbers) {
        verb->add_option(name, (*options).*member)->capture_default_str();
    }
    const std::pair<const char*, std::string ModuleOptions::*> addresses[] = {
        {"--fip", &ModuleOptions::fip},
        {"--mip", &ModuleOptions::mip},
        {"--sip", &ModuleOptions::sip}};
    for (const auto& [name, member] : addresses) {
        verb->add_option(name, (*options).*member, "IPv4 address")->capture_default_str();
    }
    verb->callback([options, &status] { status = sendModule(*options); });
}

}  // namespace Quorvel
