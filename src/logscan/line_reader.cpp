// Lines from plain or gzip input through one fixed buffer.
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <zlib.h>

#include "logscan.hpp"

namespace vlk::logscan {

line_splitter::line_splitter(std::size_t capacity) : _buffer(capacity) {}

void line_splitter::commit(std::size_t count, line_consumer& sink) {
    const char* data = _buffer.data();
    std::size_t scan = _end;
    _end += count;
    if (_skipping) {
        // The rest of an overlong line, whose head was handed over already.
        const void* feed = std::memchr(data + scan, '\n', _end - scan);
        if (feed == nullptr) {
            _begin = _end = 0;
            return;
        }
        _begin = static_cast<std::size_t>(static_cast<const char*>(feed) - data) + 1;
        scan = _begin;
        _skipping = false;
    }
    while (const void* feed = std::memchr(data + scan, '\n', _end - scan)) {
        const auto at = static_cast<std::size_t>(static_cast<const char*>(feed) - data);
        sink.line({data + _begin, at - _begin}, true);
        _begin = scan = at + 1;
    }
    if (_begin == 0 && _end == _buffer.size()) {
        // A line that fills the whole buffer: its head stands for it.
        sink.line({data, _end}, true);
        _begin = _end = 0;
        _skipping = true;
    } else if (_buffer.size() - _end < _buffer.size() / 4) {
        // Move the unfinished line to the front; at most a quarter of the
        // buffer is ever short, so a move is paid for by three quarters read.
        std::memmove(_buffer.data(), data + _begin, _end - _begin);
        _end -= _begin;
        _begin = 0;
    }
}

void line_splitter::finish(line_consumer& sink) {
    if (_end > _begin && !_skipping) {
        sink.line({_buffer.data() + _begin, _end - _begin}, false);
    }
    reset();
}

namespace {

// read() that retries on EINTR; -1 with errno on failure.
ssize_t readSome(int fd, void* into, std::size_t size) {
    ssize_t got;
    do {
        got = ::read(fd, into, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

void readError(read_problem& problem) {
    problem.what = std::string("read error: ") + std::strerror(errno);
}

void readPlain(int fd, const char* head, std::size_t headSize, line_splitter& splitter,
               line_consumer& sink, read_problem& problem) {
    std::memcpy(splitter.space(), head, headSize);
    splitter.commit(headSize, sink);
    readAvailable(fd, splitter, sink, problem);
    splitter.finish(sink);
}

// Inflates every gzip member of the stream. A fault ends the reading of this
// stream, not the scan: what came before it has been handed over.
class gzip_reader {
  public:
    gzip_reader() {
        // 15 + 16: a window of 32 KiB and a gzip wrapper, nothing else.
        _ok = inflateInit2(&_stream, 15 + 16) == Z_OK;
    }
    ~gzip_reader() {
        if (_ok) {
            inflateEnd(&_stream);
        }
    }
    gzip_reader(const gzip_reader&) = delete;
    gzip_reader& operator=(const gzip_reader&) = delete;

    void read(int fd, const char* head, std::size_t headSize, line_splitter& splitter,
              line_consumer& sink, read_problem& problem) {
        if (!_ok) {
            problem.what = "cannot start zlib";
            return;
        }
        std::memcpy(_input.data(), head, headSize);
        _stream.next_in = reinterpret_cast<Bytef*>(_input.data());
        _stream.avail_in = static_cast<uInt>(headSize);
        _inflate(fd, splitter, sink, problem);
        // A cut or damaged member may end inside a line: that line is cut.
        splitter.finish(sink);
    }

  private:
    void _inflate(int fd, line_splitter& splitter, line_consumer& sink, read_problem& problem) {
        bool inMember = true;  // bytes of the current member have been seen
        for (;;) {
            if (_stream.avail_in == 0) {
                const ssize_t got = readSome(fd, _input.data(), _input.size());
                if (got < 0) {
                    readError(problem);
                    return;
                }
                if (got == 0) {
                    if (inMember) {
                        problem.what = "truncated gzip data: the input ends inside a member";
                    }
                    return;
                }
                _stream.next_in = reinterpret_cast<Bytef*>(_input.data());
                _stream.avail_in = static_cast<uInt>(got);
            }
            if (!inMember) {
                // Another member follows, or padding: gzip itself ignores
                // trailing zero bytes, and so does this.
                if (*_stream.next_in == 0) {
                    if (_onlyZeros(fd, problem)) {
                        return;
                    }
                    continue;
                }
                inMember = true;
            }
            _stream.next_out = reinterpret_cast<Bytef*>(splitter.space());
            _stream.avail_out = static_cast<uInt>(splitter.spaceSize());
            const std::size_t room = _stream.avail_out;
            const int status = inflate(&_stream, Z_NO_FLUSH);
            splitter.commit(room - _stream.avail_out, sink);
            if (status == Z_STREAM_END) {
                inflateReset(&_stream);
                inMember = false;
            } else if (status != Z_OK && status != Z_BUF_ERROR) {
                problem.what = std::string("corrupt gzip data (") +
                               (_stream.msg != nullptr ? _stream.msg : "zlib error") + ")";
                return;
            }
        }
    }

    // Skips zero bytes; true when the stream ends in them, false when
    // something else follows, which is then taken as data.
    bool _onlyZeros(int fd, read_problem& problem) {
        for (;;) {
            while (_stream.avail_in > 0 && *_stream.next_in == 0) {
                ++_stream.next_in;
                --_stream.avail_in;
            }
            if (_stream.avail_in > 0) {
                problem.what = "corrupt gzip data (bytes after zero padding)";
                return true;
            }
            const ssize_t got = readSome(fd, _input.data(), _input.size());
            if (got <= 0) {
                if (got < 0) {
                    readError(problem);
                }
                return true;
            }
            _stream.next_in = reinterpret_cast<Bytef*>(_input.data());
            _stream.avail_in = static_cast<uInt>(got);
        }
    }

    z_stream _stream{};
    bool _ok = false;
    std::vector<char> _input = std::vector<char>(std::size_t{256} << 10);
};

}  // namespace

void readAvailable(int fd, line_splitter& splitter, line_consumer& sink, read_problem& problem) {
    for (;;) {
        const ssize_t got = readSome(fd, splitter.space(), splitter.spaceSize());
        if (got <= 0) {
            if (got < 0) {
                readError(problem);
            }
            return;
        }
        splitter.commit(static_cast<std::size_t>(got), sink);
    }
}

void readStream(int fd, line_splitter& splitter, line_consumer& sink, read_problem& problem) {
    splitter.reset();
    // The first two bytes decide; a short first read is topped up so that a
    // pipe delivering one byte at a time is judged rightly.
    char head[2];
    std::size_t headSize = 0;
    while (headSize < sizeof head) {
        const ssize_t got = readSome(fd, head + headSize, sizeof head - headSize);
        if (got <= 0) {
            if (got < 0) {
                readError(problem);
                return;
            }
            break;
        }
        headSize += static_cast<std::size_t>(got);
    }
    if (headSize == 2 && static_cast<unsigned char>(head[0]) == 0x1f &&
        static_cast<unsigned char>(head[1]) == 0x8b) {
        gzip_reader reader;
        reader.read(fd, head, headSize, splitter, sink, problem);
    } else {
        readPlain(fd, head, headSize, splitter, sink, problem);
    }
}

}  // namespace vlk::logscan
