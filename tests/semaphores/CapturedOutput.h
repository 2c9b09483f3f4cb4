#pragma once

#include <cerrno>
#include <iostream>
#include <streambuf>
#include <string>

namespace qel::test {

/// Takes what is written to std::cout for as long as it lives, and notes how much of it was
/// flushed.
class CapturedOutput : private std::streambuf {
public:
    CapturedOutput() : before_(std::cout.rdbuf(this)) {}
    ~CapturedOutput() override { std::cout.rdbuf(before_); }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    [[nodiscard]] const std::string& Text() const { return text_; }
    /// The part of the text that has been flushed, from its beginning.
    [[nodiscard]] std::string Flushed() const { return text_.substr(0, flushed_); }

    /// Lets every write leave `error` in errno.
    void SetErrno(int error) { error_ = error; }
    /// Lets every write fail.
    void Refuse() { refuse_ = true; }

private:
    int_type overflow(int_type character) override {
        const char byte = traits_type::to_char_type(character);
        return xsputn(&byte, 1) == 1 ? character : traits_type::eof();
    }
    std::streamsize xsputn(const char* bytes, std::streamsize length) override {
        errno = error_ == 0 ? errno : error_;
        if (refuse_) {
            return 0;
        }
        text_.append(bytes, static_cast<std::size_t>(length));
        return length;
    }
    int sync() override {
        flushed_ = text_.size();
        return 0;
    }

    std::streambuf* before_;
    std::string text_;
    std::size_t flushed_ = 0;
    int error_ = 0;
    bool refuse_ = false;
};

}  // namespace qel::test
