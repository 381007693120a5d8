// The index of an indexed repository file: one 16-bit big-endian entry per
// message number behind a fixed 62-byte file header.
#include "BKVlib/common/nls/amsgrtrv.h"

#include <cstdio>
#include <string>

#include "BKVlib/common/nls/amsgnote.h"
#include "BKVlib/common/ut/trace.h"

namespace {

constexpr long kIndexBase = 62;
constexpr size_t kTextMax = 1280;

void reportIndexFailure(const char* format, ...) __attribute__((format(printf, 1, 2)));
void reportIndexFailure(const char* format, ...) {
    char text[kTextMax];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    nlNoteLibText(NL_SEV_E, text, false);
}

}  // namespace

uint16_t nlReadIndex(FILE* repository, const char* repositoryName, uint16_t number) {
    long indexOffset = static_cast<long>(number) * 2 + kIndexBase;
    TR_PRINTF(TR_NLS, "ReadIndex: indexOffset = %u\n", static_cast<unsigned>(indexOffset));
    unsigned char entry[2] = {0, 0};
    bool read = repository != nullptr && fseek(repository, indexOffset, SEEK_SET) == 0 &&
                fread(entry, 1, sizeof(entry), repository) == sizeof(entry);
    if (!read) {
        reportIndexFailure("KRN0105E Error trying to read index for message %u from repository '%s'.\n", number,
                           repositoryName ? repositoryName : "");
        return 0;
    }
    uint16_t msgIndex = static_cast<uint16_t>((entry[0] << 8) | entry[1]);
    TR_PRINTF(TR_NLS, "ReadIndex: msgIndex = %u\n", msgIndex);
    if (msgIndex == 0) reportIndexFailure("KRN0106E Message index not found for message %u.\n", number);
    return msgIndex;
}
