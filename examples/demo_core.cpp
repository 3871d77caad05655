#include "HXLCore.h"
#include "demo_sections.h"

#include <cstring>

// The core utilities: text in the internal form, CRC-32, the temporary directory and the
// exception texts.
int demoCore(std::ostream& os) {
    int failures = 0;
    os << "== Core library ==\n";

    const char* utf8 = "Gr\xC3\xBC\xC3\x9F"
                       "e \xE2\x82\xAC \xF0\x9F\x98\x80";
    I18NString text(utf8, nullptr, -1, nullptr, nullptr);
    int length = 0;
    const char* back = text.c_str(nullptr, &length, nullptr, nullptr);
    os << "text \"" << back << "\": " << text.size() << " bytes inside, " << length
       << " bytes of UTF-8 with the NUL\n";
    failures += std::strcmp(back, utf8) != 0;

    const char* name = "HXLVirtualPersistNode";
    const unsigned int crc =
        HXLUtCrc32::crc32(0, reinterpret_cast<const unsigned char*>(name), std::strlen(name));
    os << "crc32(\"" << name << "\") = 0x" << std::hex << crc << std::dec << "\n";

    I18NString temp;
    HXLFmDir::getTempPath(temp);
    os << "temporary directory: " << temp.c_str(nullptr, nullptr, nullptr, nullptr) << "\n";

    try {
        int* pool = nullptr;
        HXL_ASSERT(pool != NULL);
        failures += 1;
    } catch (const HXLAssertError& e) {
        os << "assertion text: " << e.what() << "\n";
        failures += std::strcmp(e.what(), "HXL_ASSERT(pool != NULL);") != 0;
    }
    os << "\n";
    return failures;
}
