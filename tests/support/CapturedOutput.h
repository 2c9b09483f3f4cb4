#pragma once

#include <cerrno>
#include <functional>
#include <iomanip>
#include <ios>
#include <iostream>
#include <streambuf>
#include <string>
#include <utility>

namespace qel::test {

/// Takes what is written to std::cout for as long as it lives, and notes how much of it was
/// flushed. Leaves the stream as it was: its state, its formats and its exceptions too.
class CapturedOutput : private std::streambuf {
public:
    CapturedOutput() : state_(std::cout.rdstate()), before_(std::cout.rdbuf(this)) {
        format_.copyfmt(std::cout);
    }
    ~CapturedOutput() override {
        std::cout.exceptions(std::ios::goodbit);
        std::cout.rdbuf(before_);
        std::cout.clear(state_);
        std::cout.copyfmt(format_);
    }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    [[nodiscard]] const std::string& Text() const { return text_; }
    /// The part of the text that has been flushed, from its beginning.
    [[nodiscard]] std::string Flushed() const { return text_.substr(0, flushed_); }

    /// Has `look` called ahead of every write.
    void WhenWritten(std::function<void()> look) { look_ = std::move(look); }
    /// Lets every write leave `error` in errno.
    void SetErrno(int error) {
        WhenWritten([error] { errno = error; });
    }
    /// Lets every write fail.
    void Refuse() { refuse_ = true; }
    /// Lets every write fail by an exception.
    void RefuseByException() {
        Refuse();
        std::cout.exceptions(std::ios::badbit | std::ios::failbit);
    }

private:
    int_type overflow(int_type character) override {
        const char byte = traits_type::to_char_type(character);
        return xsputn(&byte, 1) == 1 ? character : traits_type::eof();
    }
    std::streamsize xsputn(const char* bytes, std::streamsize length) override {
        look_();
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

    std::ios::iostate state_;
    std::streambuf* before_;
    std::ios format_{nullptr};
    std::string text_;
    std::size_t flushed_ = 0;
    std::function<void()> look_ = [] {};
    bool refuse_ = false;
};

/// Sets std::cout as a host program may have: what is then formatted by it comes out in base 16,
/// and the next thing 60 characters wide.
inline void FormatAsAHostMay() {
    std::cout << std::hex << std::showbase << std::setw(60);
}

}  // namespace qel::test
