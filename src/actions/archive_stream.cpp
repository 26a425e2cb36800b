#include "actions/archive_stream.h"

#include <algorithm>

namespace tovel {

namespace {

// The sender ignores SIGPIPE and stops at a failed write; it writes the
// data it read in place, without copies. The remover keeps going until its
// input ends, or until the sender is gone and no input came for a second:
// a sender that died must not leave the command open for ever.
const char kProgram[] =
    "$SIG{PIPE}=\"IGNORE\";binmode STDOUT;my @o=split /,/,shift;"
    "defined(my $p=fork) or die \"fork: $!\\n\";"
    "if(!$p){close STDOUT;my($q,$l)=(getppid,\"\");"
    "for(;;){my $r=\"\";vec($r,fileno STDIN,1)=1;"
    "if(select($r,undef,undef,1)>0){last if !sysread STDIN,$l,4096,length $l;"
    "while($l=~s/^([^\\n]*)\\n//){my $i=$1;next if $i!~/^\\d+$/||$i>$#ARGV;"
    "unlink $ARGV[$i] or print STDERR \"unlink $i: $!\\n\"}}"
    "elsif(getppid!=$q){last}}exit 0}"
    "close STDIN;"
    "sub w{my $o=0;while($o<length $_[0]){"
    "my $n=syswrite STDOUT,$_[0],length($_[0])-$o,$o;exit 1 if !$n;$o+=$n}}"
    "sub e{w(pack(\"N\",2**31+length $_[0]).$_[0])}"
    "for my $i(0..$#ARGV){my($f,$s,$h,$b,$n)=($ARGV[$i],$o[$i]||0);"
    "if(!open $h,\"<\",$f){e(\"cannot open $f: $!\");next}binmode $h;"
    "if($s&&(-s $h)<$s){e(\"$f holds fewer than $s bytes\");next}"
    "if($s&&!sysseek $h,$s,0){e(\"cannot seek $f: $!\");next}"
    "while($n=sysread $h,$b,262144){w(pack(\"N\",$n));w($b)}"
    "defined $n?w(pack(\"N\",0)):e(\"cannot read $f: $!\");close $h}"
    "close STDOUT;wait;exit 0";

const uint32_t kErrorFlag = 1u << 31;

}  // namespace

// The program travels hex-encoded inside a wrapper without braces, quotes
// or blanks: a login shell that expands "{a,b}" (bash, csh) or quotes
// differently cannot change a byte of it.
const std::string& archiveStreamProgram() {
  static const std::string wrapped = [] {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (const char* c = kProgram; *c != '\0'; ++c) {
      hex += kDigits[static_cast<unsigned char>(*c) >> 4];
      hex += kDigits[static_cast<unsigned char>(*c) & 15];
    }
    return "eval(pack(q(H*),q(" + hex + ")));die($@)";
  }();
  return wrapped;
}

bool ArchiveStreamDecoder::push(const char* bytes, std::size_t size) {
  while (size > 0 && state_ != kStopped) {
    std::size_t used = 0;
    if (state_ == kHeader) {
      used = takeHeader(bytes, size);
      if (headerLength_ == sizeof header_ && !startRecord()) state_ = kStopped;
    } else if (state_ == kData) {
      used = std::min<std::size_t>(size, left_);
      left_ -= static_cast<uint32_t>(used);
      if (left_ == 0) state_ = kHeader;
      if (!handler_.data(bytes, used)) state_ = kStopped;
    } else {
      used = std::min<std::size_t>(size, left_);
      errorText_.append(bytes, used);
      left_ -= static_cast<uint32_t>(used);
      if (left_ == 0) {
        state_ = handler_.end(errorText_) ? kHeader : kStopped;
        errorText_.clear();
      }
    }
    bytes += used;
    size -= used;
  }
  return state_ != kStopped;
}

std::size_t ArchiveStreamDecoder::takeHeader(const char* bytes,
                                             std::size_t size) {
  std::size_t used = std::min(size, sizeof header_ - headerLength_);
  std::copy(bytes, bytes + used, header_ + headerLength_);
  headerLength_ += used;
  return used;
}

// False when the stream must stop here.
bool ArchiveStreamDecoder::startRecord() {
  uint32_t header = 0;
  for (unsigned char byte : header_) header = (header << 8) | byte;
  headerLength_ = 0;
  if (header == 0) return handler_.end(std::string());
  if ((header & kErrorFlag) == 0) {
    if (header > kMaxDataRecord) {
      fault_ = "a data record of " + std::to_string(header) + " bytes";
      return false;
    }
    state_ = kData;
    left_ = header;
    return true;
  }
  left_ = header & ~kErrorFlag;
  if (left_ > kMaxErrorText) {
    fault_ = "an error text of " + std::to_string(left_) + " bytes";
    return false;
  }
  if (left_ == 0) return handler_.end("the archive could not be read");
  state_ = kErrorText;
  return true;
}

}  // namespace tovel
