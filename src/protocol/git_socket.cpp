#include "protocol/git_socket.h"

#include <cstdio>

#include "base/error.h"
#include "base/trace.h"
#include "base/utf8.h"

namespace corvane {

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Logging every pkt-line must cost nothing when its category is not written.
void traceLiteral(TraceModule module, std::string_view text) {
    if (isTraceWritten(module)) trace(module, quotedLiteral(text));
}

void appendLengthPrefix(std::size_t length, Bytes& buffer) {
    char digits[5];
    std::snprintf(digits, sizeof digits, "%04zx", length);
    buffer.insert(buffer.end(), digits, digits + 4);
}

}  // namespace

GitSocket::GitSocket(int sock) : Socket(sock) {
    if (inflateInit(&zStream_) != Z_OK) throw Error("Inflate error: init");
}

GitSocket::~GitSocket() {
    inflateEnd(&zStream_);
}

std::unique_ptr<GitSocket> GitSocket::accept() {
    return std::make_unique<GitSocket>(acceptDescriptor());
}

std::string GitSocket::readPktLine() {
    fillBuffer(4);
    std::string digits(reinterpret_cast<const char*>(unread()), 4);
    consume(4);
    for (char c : digits) {
        if (static_cast<unsigned char>(c) >= 0x80) throw Error("ASCII encoding error");
    }
    std::size_t length = 0;
    for (char c : digits) {
        int digit = hexDigit(c);
        if (digit < 0) throw Error("Invalid pkt-len: " + digits);
        length = length * 16 + static_cast<std::size_t>(digit);
    }
    if (length == 0) {
        trace(TraceModule::gitRequest, "0000");
        return std::string(kFlush);
    }
    if (length <= 4) throw Error("Invalid pkt-len: " + digits);
    std::size_t payload = length - 4;
    if (payload > kMaxReadPayload) {
        throw Error("Read size of " + std::to_string(payload) + " exceeds maximum of " +
                    std::to_string(kMaxReadPayload));
    }
    fillBuffer(payload);
    std::string_view bytes(reinterpret_cast<const char*>(unread()), payload);
    if (!isValidUtf8(bytes)) throw Error("UTF-8 encoding error");
    std::string text(trimNewlines(bytes));
    consume(payload);
    traceLiteral(TraceModule::gitRequest, text);
    return text;
}

void GitSocket::appendPktLine(std::string_view text, Bytes& buffer) {
    if (text.empty()) {
        appendLengthPrefix(0, buffer);
        return;
    }
    if (text.size() > kMaxWritePayload) throw Error("PktLine size exceeds limit");
    if (!isValidUtf8(text)) throw Error("Encoding error");
    appendLengthPrefix(text.size() + 4, buffer);
    buffer.insert(buffer.end(), text.begin(), text.end());
}

void GitSocket::writePktLine(std::string_view text) {
    Bytes line;
    line.reserve(text.size() + 4);
    appendPktLine(text, line);
    if (text.empty()) {
        trace(TraceModule::gitReply, "0000");
    } else {
        traceLiteral(TraceModule::gitReply, text);
    }
    sendAll(line);
}

bool GitSocket::hasSideBand() const {
    return hasCapability(Capability::sideBand) || hasCapability(Capability::sideBand64k);
}

void GitSocket::writeProgress(std::string_view text) {
    if (!hasSideBand() || hasCapability(Capability::quiet)) return;
    std::string line(1, kBandProgress);
    line += text;
    writePktLine(line);
}

void GitSocket::writeError(std::string_view text) {
    std::string line(1, kBandError);
    line += text;
    writePktLine(line);
}

void GitSocket::setCapabilities(Capabilities capabilities) {
    capabilities_ = std::move(capabilities);
    setSideBandLimit();
}

void GitSocket::setSideBandLimit() {
    if (hasCapability(Capability::sideBand64k)) {
        sideBandLimit_ = 65515;
    } else if (hasCapability(Capability::sideBand)) {
        sideBandLimit_ = 995;
    } else {
        sideBandLimit_.reset();
    }
}

void GitSocket::writeSideBandData(ByteView data) {
    packHash_.update(data);
    if (!sideBandLimit_) {
        sendAll(data);
        return;
    }
    packBuffer_.insert(packBuffer_.end(), data.begin(), data.end());
    // Send whole packets from the front of the buffer, then drop them all at once: a large
    // object must not shift the buffer once per packet.
    std::size_t offset = 0;
    while (packBuffer_.size() - offset >= *sideBandLimit_) {
        sendBandPacket(ByteView(packBuffer_).subspan(offset, *sideBandLimit_));
        offset += *sideBandLimit_;
    }
    packBuffer_.erase(packBuffer_.begin(),
                      packBuffer_.begin() + static_cast<std::ptrdiff_t>(offset));
}

void GitSocket::sendSideBandChunk(std::size_t limit) {
    std::size_t n = std::min(packBuffer_.size(), limit);
    sendBandPacket(ByteView(packBuffer_).first(n));
    packBuffer_.erase(packBuffer_.begin(), packBuffer_.begin() + static_cast<std::ptrdiff_t>(n));
}

void GitSocket::sendBandPacket(ByteView payload) {
    Bytes header;
    appendLengthPrefix(payload.size() + 5, header);
    header.push_back(kBandData);
    sendAll(header, payload);
}

void GitSocket::drainPackBuffer() {
    std::size_t limit = sideBandLimit_.value_or(packBuffer_.size());
    while (!packBuffer_.empty())
        sendSideBandChunk(limit);
}

}  // namespace corvane
