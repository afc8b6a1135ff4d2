// The golden record: every figure of a fixed case matrix (each mode code at
// 3, 4, 5.5 and 8 samples per symbol, two capture lengths) must come out
// bit for bit as the unoptimised library produced it. See golden/golden_cases.h.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "golden/golden_cases.h"
#include "golden/sha256.h"

namespace {

// Recorded lines of one mode code, in file order.
std::vector<std::string> recordedLines(int mode) {
    std::ifstream in(VANTREL_GOLDEN_RECORD);
    std::vector<std::string> out;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream s(line);
        int m = 0;
        if (s >> m && m == mode) out.push_back(line);
    }
    return out;
}

TEST(GoldenRecord, HashIsSha256) {
    Sha256 h;
    h.update("abc", 3);
    EXPECT_EQ(h.hexDigest(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    Sha256 two;  // a message spanning two blocks, fed in uneven pieces
    const std::string m = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    two.update(m.data(), 5);
    two.update(m.data() + 5, m.size() - 5);
    EXPECT_EQ(two.hexDigest(), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

class GoldenRecord : public ::testing::TestWithParam<int> {};

TEST_P(GoldenRecord, EveryFigureBitIdentical) {
    const int mode = GetParam();
    const std::vector<std::string> want = recordedLines(mode);
    ASSERT_EQ(want.size(), golden::casesFor(mode).size()) << "record missing for mode " << mode;
    const std::vector<std::string> got = golden::runMode(mode);
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i], want[i]);
}

INSTANTIATE_TEST_SUITE_P(AllCodes, GoldenRecord, ::testing::Range(1, 19));

}  // namespace
