// See kernel_counts.h. Used by the kernel plane.
#include "host/device/kernel/kernel_counts.h"

namespace host {

namespace {

using Counts = std::map<std::string, NftChainCounts>;

bool isOf(const std::string &chain, const char *pKind) { return chain.rfind(pKind, 0) == 0; }

// The place of "4/wan/10..." in a name.
std::string behindKind(const std::string &chain, const char *pKind) { return chain.substr(std::string(pKind).size()); }

const NftCount *onlyCount(const Counts &counts, const std::string &chain) {
    const auto found = counts.find(chain);
    return found == counts.end() || found->second.empty() ? nullptr : &found->second.front().second;
}

const NftCount *commented(const Counts &counts, const std::string &chain, const std::string &comment) {
    const auto found = counts.find(chain);
    if (found == counts.end()) {
        return nullptr;
    }
    for (const auto &[text, count] : found->second) {
        if (text == comment) {
            return &count;
        }
    }
    return nullptr;
}

// place: "4/wan/10", of a node; number: of the rule, behind a slash.
const NftCount *ownChains(const Counts &counts, const std::string &place, const std::string &number) {
    const NftCount *pCount = onlyCount(counts, "rule" + place + number);
    return pCount != nullptr ? pCount : onlyCount(counts, "skip" + place + number);
}

const NftCount *before(const Counts &counts, const NftChange &change) {
    if (isOf(change.name, "do")) {
        return onlyCount(counts, change.name);
    }
    if (isOf(change.name, "match")) {
        const NftCount *pCount = commented(counts, change.name, change.rule.comment);
        const std::string number = change.rule.comment.substr(change.rule.comment.rfind(' ') + 1);
        return pCount != nullptr ? pCount : ownChains(counts, behindKind(change.name, "match"), "/" + number);
    }
    if (!isOf(change.name, "rule") && !isOf(change.name, "skip")) {
        return nullptr;
    }
    const std::string whole = behindKind(change.name, "rule"); // both words have four letters
    const size_t slash = whole.rfind('/');
    const NftCount *pCount = ownChains(counts, whole.substr(0, slash), whole.substr(slash));
    return pCount != nullptr ? pCount : commented(counts, "match" + whole.substr(0, slash), change.rule.comment);
}

} // namespace

bool kernelIsCountingChain(const std::string &chain) {
    return isOf(chain, "match") || isOf(chain, "do") || isOf(chain, "rule") || isOf(chain, "skip");
}

NftCount kernelCountBefore(const Counts &counts, const NftChange &change) {
    const NftCount *pCount = before(counts, change);
    return pCount == nullptr ? NftCount{} : *pCount;
}

} // namespace host
