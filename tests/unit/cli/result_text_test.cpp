// Tests of client/result_text.cpp.
#include "client/result_text.h"

#include <set>

#include <gtest/gtest.h>

using namespace client;

namespace {

constexpr uint32_t PUBLISHED[] = {
    PBR_OK, PBR_FAIL, PBR_ERR_LIST_LIMIT, PBR_ERR_NO_RECORD, PBR_ERR_NO_ROW, PBR_ERR_IN_USE, QRV_ERR_NOT_PERMITTED,
    PBR_ERR_BAD_ARGUMENT, QRV_ERR_SOCKET, QRV_ERR_TASK, PBR_ERR_FIRST_NEXT_HOP, PBR_ERR_BIND, PBR_ERR_ACL_MISSING,
    PBR_ERR_ACL_USED, PBR_ERR_ZERO_NEXT_HOP, PBR_ERR_ACL_RANGE, PBR_ERR_NO_LIST, PBR_ERR_NO_MATCH, PBR_ERR_NO_APPLY,
    PBR_ERR_HAS_OUT_IF, PBR_ERR_HAS_NEXT_HOP, PBR_ERR_ACL_VERSION, PBR_ERR_VERSION_SET};

TEST(ResultText, EveryPublishedCodeHasItsOwnMeaningAndAnAdvice) {
    std::set<std::string> meanings;
    for (const uint32_t code : PUBLISHED) {
        const ResultText *pText = resultTextGet(code);
        ASSERT_NE(pText, nullptr) << std::hex << code;
        EXPECT_TRUE(meanings.insert(pText->pMeaning).second) << pText->pMeaning;
        EXPECT_EQ(std::string(pText->pAdvice).empty(), code == PBR_OK) << pText->pName;
    }
}

TEST(ResultText, UnbindingAListThatIsGoneHasTheCodeOfAMissingRow) {
    EXPECT_EQ(resultTextGet(PBR_ERR_UNBIND_NO_LIST), resultTextGet(PBR_ERR_NO_ROW));
}

TEST(ResultText, TellsTheCodeInHex) {
    EXPECT_EQ(resultDescribe(PBR_ERR_ACL_USED), "the ACL is already used by a node (0x044B0005)");
}

TEST(ResultText, AnUnpublishedCodeIsShownAndPointsToTheLog) {
    EXPECT_EQ(resultTextGet(0x12345678), nullptr);
    EXPECT_EQ(resultDescribe(0x12345678), "the platform refused it (0x12345678)");
    EXPECT_NE(resultAdvice(0x12345678).find("log"), std::string::npos);
}

} // namespace
