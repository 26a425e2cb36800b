// UnbufferedOutput: a stream buffer for output with no buffer of its own.
// Every write reaches xsputn, which a subclass implements; a single
// character goes the same way, and fails when xsputn takes nothing.
#ifndef FERROW_COMMONS_UNBUFFERED_OUTPUT_H_
#define FERROW_COMMONS_UNBUFFERED_OUTPUT_H_

#include <streambuf>

namespace tovel {

class UnbufferedOutput : public std::streambuf {
 protected:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) {
      return traits_type::not_eof(c);
    }
    char byte = traits_type::to_char_type(c);
    return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
  }
};

}  // namespace tovel

#endif  // FERROW_COMMONS_UNBUFFERED_OUTPUT_H_
