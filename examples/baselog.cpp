// Writes one record with each of the three forms of write_baselog. `qvctl listen` shows them.

#include <qvapi_cpp.h>
#include <time.h>

#include <iostream>
#include <string>

namespace {

// 0 says that the record was sent, or that sampling dropped it on purpose.
bool report(const char* form, int code, Quorvel::CLogger& logger) {
    std::cout << form << ": " << code;
    if (code != 0) {
        std::cout << " (" << logger.get_errmsg() << ')';
    }
    std::cout << '\n';
    return code == 0;
}

}  // namespace

int main() {
    Quorvel::CLogger logger;
    if (!report("init", logger.init("example_baselog"), logger)) {
        return 1;
    }
    const auto now = static_cast<unsigned int>(time(nullptr));
    const int8_t text = 0;  // the protocol type of a text body
    bool allAccepted = true;

    // The raw form sends any bytes; the protocol type says whether they are text (0) or binary (1).
    const char bytes[] = {'r', 'a', 'w', '\0', 'b', 'y', 't', 'e', 's'};
    allAccepted &=
        report("raw form",
               logger.write_baselog(bytes, sizeof(bytes), Quorvel::LT_NORMAL, text, now), logger);

    // The string form suits texts of key=value pairs; encode() makes a value safe inside them.
    std::string path = "/search?q=100%&page=2";
    std::string escaped;
    logger.encode(path, escaped);
    allAccepted &= report(
        "string form",
        logger.write_baselog(Quorvel::LT_NORMAL, "path=" + escaped + "&status=200", false, now),
        logger);

    // The formatted form works as printf does. Its time stamp must not be a literal 0: that is also
    // a null pointer, and the compiler could not tell this form from the string form.
    allAccepted &= report(
        "formatted form",
        logger.write_baselog(Quorvel::LT_NORMAL, now, "user=%s,attempt=%d", "alice", 3), logger);

    return allAccepted ? 0 : 1;
}
