// Reports calls between two modules, in both encodings. `qvctl listen` shows them.

#include <qvapi_cpp.h>

#include <iostream>
#include <string>

int main() {
    const int callingModule = 7;
    const int calledModule = 8;
    const int interface = 9;
    const int timedOut = 5;

    Quorvel::CLogger logger;  // module mode always sends datagrams
    if (logger.init(callingModule) != 0) {
        std::cerr << logger.get_errmsg() << '\n';
        return 1;
    }
    // Time-outs are rare and precious: keep each of them, whatever sampling says.
    logger.set_no_sample(timedOut);

    std::string caller = "10.0.0.1";
    std::string called = "10.0.0.2";
    std::string client = "1.2.3.4";
    const int binary = logger.write_modulelog(calledModule, interface, client, caller, called,
                                              /*retval=*/0, timedOut, /*delay=*/30,
                                              /*reqLen=*/100, /*rspLen=*/200);
    const int text = logger.write_modulelog_forIM(calledModule, interface, caller, called,
                                                  /*retval=*/0, /*result=*/0, /*delay=*/12);
    if (binary != 0 || text != 0) {
        std::cerr << binary << ", " << text << ": " << logger.get_errmsg() << '\n';
        return 1;
    }
    std::cout << "one binary record, one text record\n";
    return 0;
}
