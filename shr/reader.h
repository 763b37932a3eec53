#pragma once

// Bounded cursors over untrusted bytes and over packets being built.
// A read or write past the end fails the cursor and every later call:
// check ok() once after a run of calls.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

class Reader {
public:
    Reader() : ok_(false) {}
    explicit Reader(std::span<const uint8_t> b) : buf_(b) {}
    Reader(const void* p, size_t n) : buf_(static_cast<const uint8_t*>(p), n) {}

    bool ok() const { return ok_; }
    size_t pos() const { return pos_; }
    size_t left() const { return ok_ ? buf_.size() - pos_ : 0; }
    std::span<const uint8_t> whole() const { return buf_; }

    uint8_t u8() { return take(1) ? buf_[pos_ - 1] : 0; }
    uint16_t u16be() { return take(2) ? uint16_t(buf_[pos_ - 2] << 8 | buf_[pos_ - 1]) : 0; }
    uint32_t u32be() { uint32_t hi = u16be(); return hi << 16 | u16be(); }
    uint16_t u16le() { return take(2) ? uint16_t(buf_[pos_ - 1] << 8 | buf_[pos_ - 2]) : 0; }
    uint32_t u32le() { uint32_t lo = u16le(); return uint32_t(u16le()) << 16 | lo; }
    // The client messages' integers, which lie in host order.
    uint16_t u16host() { uint16_t v = 0; copy(&v, 2); return v; }
    uint32_t u32host() { uint32_t v = 0; copy(&v, 4); return v; }
    uint8_t peek() const { return ok_ && pos_ < buf_.size() ? buf_[pos_] : 0; }
    std::span<const uint8_t> bytes(size_t n) {
        return take(n) ? buf_.subspan(pos_ - n, n) : std::span<const uint8_t>();
    }
    bool copy(void* out, size_t n) {
        auto s = bytes(n);
        if (ok_ && n > 0)
            memcpy(out, s.data(), n);
        return ok_;
    }
    bool skip(size_t n) { return take(n); }
    bool seek(size_t p) {   // absolute position, for name pointers
        if (!ok_ || p > buf_.size())
            return ok_ = false;
        pos_ = p;
        return true;
    }
    Reader sub(size_t n) {  // the next n bytes, as their own reader
        return take(n) ? Reader(buf_.subspan(pos_ - n, n)) : Reader();
    }

private:
    bool take(size_t n) {
        if (!ok_ || n > buf_.size() - pos_) {
            ok_ = false;
            return false;
        }
        pos_ += n;
        return true;
    }
    std::span<const uint8_t> buf_;
    size_t pos_ = 0;
    bool ok_ = true;
};

class Writer {
public:
    explicit Writer(std::span<uint8_t> b) : buf_(b) {}
    Writer(void* p, size_t n) : buf_(static_cast<uint8_t*>(p), n) {}

    bool ok() const { return ok_; }
    size_t size() const { return pos_; }
    size_t room() const { return ok_ ? buf_.size() - pos_ : 0; }
    uint8_t* data() { return buf_.data(); }

    void u8(uint8_t v) { if (take(1)) buf_[pos_ - 1] = v; }
    void u16be(uint16_t v) { u8(uint8_t(v >> 8)); u8(uint8_t(v)); }
    void u32be(uint32_t v) { u16be(uint16_t(v >> 16)); u16be(uint16_t(v)); }
    void u16le(uint16_t v) { u8(uint8_t(v)); u8(uint8_t(v >> 8)); }
    void u32le(uint32_t v) { u16le(uint16_t(v)); u16le(uint16_t(v >> 16)); }
    void bytes(const void* p, size_t n) {
        if (take(n) && n > 0)
            memcpy(buf_.data() + pos_ - n, p, n);
    }
    void zeros(size_t n) { if (take(n) && n > 0) memset(buf_.data() + pos_ - n, 0, n); }
    // Overwrites two bytes already written (a count filled in afterwards).
    void patch16be(size_t at, uint16_t v) {
        if (!ok_ || at + 2 > pos_) { ok_ = false; return; }
        buf_[at] = uint8_t(v >> 8);
        buf_[at + 1] = uint8_t(v);
    }
    size_t mark() const { return pos_; }
    // Drops a partial entry: back to a mark, and usable again.
    void rollback(size_t m) { if (m <= pos_) { pos_ = m; ok_ = true; } }

private:
    bool take(size_t n) {
        if (!ok_ || n > buf_.size() - pos_) {
            ok_ = false;
            return false;
        }
        pos_ += n;
        return true;
    }
    std::span<uint8_t> buf_;
    size_t pos_ = 0;
    bool ok_ = true;
};
