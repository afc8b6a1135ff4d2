// SHA-256 (FIPS 180-4) of a byte stream, for fingerprinting analysis results.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class Sha256 {
public:
    Sha256();
    void update(const void* data, std::size_t len);
    // Finishes the message and returns the digest as 64 lower-case hex digits.
    std::string hexDigest();

private:
    void block(const std::uint8_t* p);
    std::uint32_t h_[8];
    std::uint8_t buf_[64];
    std::size_t used_ = 0;
    std::uint64_t total_ = 0;
};
