#include "platform/tarncore.h"

#include "formats/md5_text.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <nettle/arcfour.h>
#include <zlib.h>

namespace {

constexpr size_t kMD5Bytes = kMD5Digits / 2;

// The cipher library's copy of a state, wiped when it goes.
class CCipherContext {
  public:
    CCipherContext() = default;
    ~CCipherContext() { explicit_bzero(&m_context, sizeof m_context); }
    CCipherContext(const CCipherContext &) = delete;
    CCipherContext &operator=(const CCipherContext &) = delete;

    arcfour_ctx *Get() noexcept { return &m_context; }
    void LoadFrom(const RC4_STATE &state) noexcept {
        m_context.i = static_cast<uint8_t>(state.x);
        m_context.j = static_cast<uint8_t>(state.y);
        std::transform(std::begin(state.data), std::end(state.data), m_context.S,
                       [](uint32_t ulEntry) { return static_cast<uint8_t>(ulEntry); });
    }
    void StoreTo(RC4_STATE &state) const noexcept {
        state.x = m_context.i;
        state.y = m_context.j;
        std::copy(std::begin(m_context.S), std::end(m_context.S), state.data);
    }

  private:
    arcfour_ctx m_context = {};
};

} // namespace

uint32_t Crc32(uint32_t seed, const unsigned char *data, uint64_t length) {
    return data == nullptr ? seed : static_cast<uint32_t>(crc32_z(seed, data, length));
}

int MD5_StrResultConvert(const char *hex32, void *out16) {
    if (out16 == nullptr) {
        return 0;
    }
    const bool bDigits =
        hex32 != nullptr && strnlen(hex32, kMD5Digits + 1) == kMD5Digits && DecodeHex({hex32, kMD5Digits}, out16);
    if (!bDigits) { // callers store the bytes without asking for the result
        std::memset(out16, 0, kMD5Bytes);
    }
    return bDigits ? 1 : 0;
}

int MD5_BinResultConvert(const void *bin16, char *hex33) {
    if (bin16 == nullptr || hex33 == nullptr) {
        return 0;
    }
    EncodeHex({static_cast<const char *>(bin16), kMD5Bytes}, hex33);
    hex33[kMD5Digits] = '\0';
    return 1;
}

void RC4_set_key(RC4_STATE *state, int keyLength, const unsigned char *key) {
    if (state == nullptr) {
        return;
    }
    *state = {};
    if (key == nullptr || keyLength <= 0) { // the cipher library ends the process on an empty key
        return;
    }
    CCipherContext context;
    // RC4 has a 256-step key schedule; the library ends the process on a longer key.
    arcfour_set_key(context.Get(), std::min<size_t>(static_cast<size_t>(keyLength), ARCFOUR_MAX_KEY_SIZE), key);
    context.StoreTo(*state);
}

void RC4_crypt(RC4_STATE *state, uint64_t length, const unsigned char *in, unsigned char *out) {
    if (state == nullptr || length == 0 || in == nullptr || out == nullptr) {
        return;
    }
    CCipherContext context;
    context.LoadFrom(*state);
    arcfour_crypt(context.Get(), length, out, in);
    context.StoreTo(*state);
}
