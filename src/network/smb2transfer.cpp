// SPDX-License-Identifier: Apache-2.0
// How a Smb2Session reads and writes files.
//
// libsmb2 cuts a READ or WRITE to what the server's credits permit when it is queued: without
// credits to 0 bytes, for which it counts no credit, but the server does. So none is queued then.

#include "network/libsmb2_internals_p.h"
#include "network/libsmb2_p.h"
#include "network/smb2reply_p.h"
#include "network/smb2session_p.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <limits>

namespace oru::io {

namespace {

/// The longest WRITE: it costs one credit.
constexpr std::uint32_t longestPiece = 65536;
/// How many requests of a write are under way at most: 1 MiB.
constexpr int largestWindow = 16;
/// An offset to which no transfer moves a handle.
constexpr std::int64_t nowhere = std::numeric_limits<std::int64_t>::max();

/// The answer to a READ or WRITE.
struct Answer {
    enum Kind { Success, EndOfFile, Refusal, Invalid };
    Kind kind;
    int result; ///< Success: the count of bytes. Refusal: a negative errno
};

/// Interprets what libsmb2 passes to the callback of a request of `length` bytes: an errno, or the
/// count. After "end of file" the count is not set, and a count above INT_MAX looks like an errno.
/// But only a success moves the handle, which was `nowhere`, and is again.
Answer answerOf(smb2_context* context, smb2fh* file, int status, std::uint32_t length) {
    constexpr int largestErrno = 4095;
    const bool isSuccess = smb2_lseek(context, file, 0, SEEK_CUR, nullptr) != nowhere;
    smb2_lseek(context, file, nowhere, SEEK_SET, nullptr);
    if (isSuccess) {
        const bool isInRange = static_cast<std::uint32_t>(status) <= length;
        return {isInRange ? Answer::Success : Answer::Invalid, status};
    }
    const bool isErrno = status < 0 && status >= -largestErrno;
    return isErrno ? Answer{Answer::Refusal, status} : Answer{Answer::EndOfFile, 0};
}

} // namespace

// --- Reading ------------------------------------------------------------------------------------

/// A READ request.
struct Smb2Session::Reading : Reply {
    Reading(Smb2Session& in, smb2fh* of, std::uint32_t bytes)
        : session(in), file(of), length(bytes) {}

    Smb2Session& session;
    smb2fh* const file;
    const std::uint32_t length;
    bool isValid = true;

    static void take(smb2_context* context, int status, void*, void* reply) {
        auto* const reading = static_cast<Reading*>(static_cast<Reply*>(reply));
        if (!reading->session.m_context)
            return; // this is the end of the connection, without an answer
        const Answer answer = answerOf(context, reading->file, status, reading->length);
        reading->isValid = answer.kind != Answer::Invalid;
        const bool isEmpty = answer.kind == Answer::Success && answer.result == 0;
        reading->answer(isEmpty ? -EBADMSG : answer.result);
    }
};

int Smb2Session::read(smb2fh* file, void* buf, std::uint32_t count) {
    const std::int64_t offset = offsetOf(file);
    const int moved = readAt(file, buf, count, offset);
    lseek(file, offset + std::max(moved, 0));
    return moved;
}

int Smb2Session::pread(smb2fh* file, void* buf, std::uint32_t count, std::int64_t offset) {
    if (offset < 0)
        return -EINVAL;
    const std::int64_t before = offsetOf(file);
    const int moved = readAt(file, buf, count, offset);
    lseek(file, before);
    return moved;
}

/// Reads with one request, and leaves the handle's offset undefined. A count of 0 sends none:
/// libsmb2 would take it for a very large one.
int Smb2Session::readAt(smb2fh* file, void* buf, std::uint32_t count, std::int64_t offset) {
    if (!m_context)
        return -m_lastError;
    if (count == 0)
        return 0;
    const QDeadlineTimer due = deadline();
    while (!hasCredit()) {
        if (const int loss = exchange(due))
            return fail(loss);
    }
    lseek(file, nowhere);
    Reading reading(*this, file, count);
    const int refused = smb2_pread_async(m_context.get(), file, static_cast<std::uint8_t*>(buf),
                                         count, static_cast<std::uint64_t>(offset), Reading::take,
                                         static_cast<Reply*>(&reading));
    if (refused != 0)
        return refused;
    if (const int loss = send())
        return fail(loss);
    const int moved = await(reading, due);
    return reading.isValid ? moved : fail(ECONNRESET);
}

// --- Writing ------------------------------------------------------------------------------------

/// A write, and its requests that are under way.
struct Smb2Session::Writing {
    /// The bytes of one request that are not written yet: `begin` to `end` of the write.
    struct Piece {
        Writing* writing = nullptr;
        std::uint32_t begin = 0;
        std::uint32_t end = 0;
        int refusal = 0; ///< a negative errno
        bool isUnderWay = false;

        bool isEmpty() const {
            return begin == end;
        }
    };

    Writing(Smb2Session& in, smb2fh* to, const void* bytes, std::uint32_t size, std::int64_t at,
            AtZero what)
        : session(in), file(to), from(static_cast<const std::uint8_t*>(bytes)), count(size),
          offset(at), atZero(what), window(in.window()),
          longest(std::min(longestPiece, smb2_get_max_write_size(in.m_context.get()))) {
        for (Piece& piece : pieces)
            piece.writing = this;
    }

    /// Queues what the window and the credits permit. \returns whether it has queued anything.
    bool queue() {
        bool hasQueued = false;
        for (int i = 0; i < window && !isStopped && session.hasCredit(); ++i) {
            Piece& piece = pieces[i];
            if (piece.isUnderWay)
                continue;
            if (piece.isEmpty()) {
                piece.begin = next;
                next += std::min(longest, count - next);
                piece.end = next;
            }
            if (!piece.isEmpty())
                hasQueued |= queue(piece);
        }
        return hasQueued;
    }
    bool queue(Piece& piece) {
        session.lseek(file, nowhere);
        const int refused = smb2_pwrite_async(
            session.m_context.get(), file, from + piece.begin, piece.end - piece.begin,
            static_cast<std::uint64_t>(offset + piece.begin), Writing::take, &piece);
        if (refused != 0) {
            refuse(piece, refused);
            return false;
        }
        piece.isUnderWay = true;
        ++underWay;
        return true;
    }

    /// The callback of a request.
    static void take(smb2_context* context, int status, void*, void* data) {
        Piece& piece = *static_cast<Piece*>(data);
        Writing& writing = *piece.writing;
        // Without it, this is the end of the connection, and no answer.
        if (writing.session.m_context)
            writing.take(piece, answerOf(context, writing.file, status, piece.end - piece.begin));
    }
    void take(Piece& piece, const Answer& answer) {
        piece.isUnderWay = false;
        --underWay;
        ++answers;
        switch (answer.kind) {
        case Answer::Success:
            piece.begin += static_cast<std::uint32_t>(answer.result);
            written += static_cast<std::uint32_t>(answer.result);
            if (answer.result == 0 && atZero == AtZero::Stop)
                isStopped = true;
            break;
        case Answer::EndOfFile:
            refuse(piece, -EBADMSG);
            break;
        case Answer::Refusal:
            refuse(piece, answer.result);
            break;
        case Answer::Invalid:
            isValid = false;
        }
    }
    void refuse(Piece& piece, int error) {
        piece.refusal = error;
        isStopped = true;
    }

    /// Whether all answers have arrived, and nothing more is to be sent.
    bool isComplete() const {
        return underWay == 0 && (isStopped || written == count);
    }
    /// The negative errno of the lowest piece that was refused; without one, the count.
    int result() const {
        const Piece* lowest = nullptr;
        for (const Piece& piece : pieces) {
            if (piece.refusal != 0 && (!lowest || piece.begin < lowest->begin))
                lowest = &piece;
        }
        return lowest ? lowest->refusal : static_cast<int>(count);
    }
    /// How many bytes are written before the first one that is not.
    std::uint32_t prefix() const {
        std::uint32_t end = next;
        for (const Piece& piece : pieces) {
            if (!piece.isEmpty())
                end = std::min(end, piece.begin);
        }
        return end;
    }

    Smb2Session& session;
    smb2fh* const file;
    const std::uint8_t* const from;
    const std::uint32_t count;
    const std::int64_t offset;
    const AtZero atZero;
    const int window;
    const std::uint32_t longest;

    std::array<Piece, largestWindow> pieces; // of which the first `window` are used
    std::uint32_t next = 0;                  // the first byte that has not been in a piece
    std::uint32_t written = 0;
    int underWay = 0;
    int answers = 0;
    bool isStopped = false; // nothing more is queued
    bool isValid = true;    // no answer contradicts its request
};

int Smb2Session::write(smb2fh* file, const void* buf, std::uint32_t count) {
    return writeAt(file, buf, count, offsetOf(file), AtZero::SendAgain);
}

int Smb2Session::pwrite(smb2fh* file, const void* buf, std::uint32_t count, std::int64_t offset) {
    if (count != 0 && offset < 0)
        return -EINVAL;
    const std::int64_t before = offsetOf(file);
    const int result = writeAt(file, buf, count, offset, AtZero::Stop);
    lseek(file, before);
    return result;
}

/// Leaves the handle's offset after the last byte before which all are written.
int Smb2Session::writeAt(smb2fh* file, const void* buf, std::uint32_t count, std::int64_t offset,
                         AtZero atZero) {
    if (count == 0)
        return 0;
    if (!m_context)
        return -m_lastError;
    if (count > std::uint32_t{std::numeric_limits<int>::max()})
        return -EINVAL;
    if (offset > std::numeric_limits<std::int64_t>::max() - count)
        return -EFBIG;
    Writing writing(*this, file, buf, count, offset, atZero);
    const int result = carryOut(writing);
    lseek(file, offset + writing.prefix());
    return result;
}

/// Sends requests and takes answers until the write is complete. Each request has the time-out from
/// when it was queued, or from the last answer to another one of this write.
int Smb2Session::carryOut(Writing& writing) {
    QDeadlineTimer due = deadline();
    while (!writing.isComplete()) {
        const int answers = writing.answers;
        int loss = writing.queue() ? send() : exchange(due);
        if (!writing.isValid)
            loss = ECONNRESET;
        if (loss != 0) {
            // All answers may have arrived before the connection ended.
            const bool hasAll = writing.isValid && writing.isComplete();
            const int result = hasAll ? writing.result() : -loss;
            m_wasLostInWindow = writing.underWay > 1;
            fail(loss);
            return result;
        }
        if (writing.answers != answers) {
            m_frames.setAnswered();
            due = deadline();
        }
    }
    return writing.result();
}

// --- Windows and credits ------------------------------------------------------------------------

void Smb2Session::writeSingly() {
    m_writesSingly = true;
}

bool Smb2Session::wasLostInWindow() const {
    return m_wasLostInWindow;
}

/// How many requests of a write are under way at a time.
int Smb2Session::window() const {
    // The dialect 2.0.2 has no credits that libsmb2 counts.
    const bool hasCredits = m_dialect > SMB2_VERSION_0202 && libsmb2::credits(m_context.get()) >= 0;
    return m_writesSingly || !hasCredits ? 1 : largestWindow;
}

/// Whether the server permits a request of up to 64 KiB. Also when that cannot be found out.
bool Smb2Session::hasCredit() const {
    return m_dialect <= SMB2_VERSION_0202 || libsmb2::credits(m_context.get()) != 0;
}

std::int64_t Smb2Session::lseek(smb2fh* file, std::int64_t offset) {
    return m_context ? smb2_lseek(m_context.get(), file, offset, SEEK_SET, nullptr) : -m_lastError;
}

std::int64_t Smb2Session::offsetOf(smb2fh* file) const {
    return m_context ? smb2_lseek(m_context.get(), file, 0, SEEK_CUR, nullptr) : -m_lastError;
}

} // namespace oru::io
