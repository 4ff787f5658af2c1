// The parts of the field tables that do not depend on the table: the call of the synchronisation
// service and the records of the whole-row encoding.
#include "api/pbr_field.h"

#include <cstring>

namespace {
constexpr uint32_t RECORD_HEAD_BYTES = 8; // field id and length
constexpr uint32_t NUMBER_BYTES = 4;
} // namespace

uint32_t pbrApiBytesGet(const void *pBytes, uint32_t len, PbrApiValue *pValue) {
    if (pValue->word0 == 0 && len != 0) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    if (len != 0) {
        memcpy(pbrApiBytes(pValue), pBytes, len);
    }
    pValue->word1 = len;
    return PBR_OK;
}

uint32_t pbrApiSync(const PbrApiCall *pCall, PbrFieldKind kind) {
    PbrSyncCtx ctx;
    memset(&ctx, 0, sizeof ctx);
    ctx.syncFlags = pCall->origin | pCall->pTable->syncFlags;
    ctx.keyLen = pCall->pTable->keyLen;
    ctx.valueLen = NUMBER_BYTES;
    if (kind == PBR_FIELD_BYTES) {
        ctx.syncFlags |= PBR_SYNC_FLAG_BYTES;
        ctx.valueLen = pCall->pValue->word1;
    }
    return qrvHwilCmdSyncApi(pCall->pKey, pCall->pTable->codeBase + pCall->fieldId, pCall->pValue, &ctx);
}

uint32_t pbrRowStart(PbrRowStream *pStream, PbrApiValue *pValue) {
    if (pValue->word0 == 0) {
        return PBR_FAIL;
    }
    adr_start(&pStream->adr, pbrApiBytes(pValue));
    pStream->capacity = pValue->word1;
    pStream->pValue = pValue;
    pValue->word1 = 0;
    return PBR_OK;
}

bool pbrRowRoom(const PbrRowStream *pStream, PbrFieldKind kind, uint8_t width) {
    const bool fixedBytes = kind == PBR_FIELD_BYTES && width != 0;
    const uint32_t need = RECORD_HEAD_BYTES + (fixedBytes ? width : NUMBER_BYTES);
    const uint32_t written = pStream->pValue->word1;
    return written <= pStream->capacity && pStream->capacity - written >= need;
}

void pbrRowNumber(PbrRowStream *pStream, uint32_t fieldId, uint32_t number) {
    adr_uint32(&pStream->adr, fieldId);
    adr_uint32(&pStream->adr, NUMBER_BYTES);
    adr_uint32(&pStream->adr, number);
    pStream->pValue->word1 = adr_count(&pStream->adr);
}

void pbrRowBytes(PbrRowStream *pStream, uint32_t fieldId, const uint8_t *pBytes, uint32_t len) {
    adr_uint32(&pStream->adr, fieldId);
    adr_uint32(&pStream->adr, len);
    adr_char(&pStream->adr, pBytes, len);
    pStream->pValue->word1 = adr_count(&pStream->adr);
}
