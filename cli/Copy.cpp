#include "Copy.h"

#include "CPieceReader.h"
#include "platform.h"

#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/parallel_pipeline.h>
#include <oneapi/tbb/task_arena.h>

#include <algorithm>

namespace tessel::cli {

namespace {

/// The plain bytes of all pieces together.
constexpr int64 bytesUnderWay = int64{20} << 20;

int getPieceCount(int jobs) {
    return jobs == 1 ? 1 : 2 * jobs + 2;
}

int getPieceSize(int jobs) {
    const int64 most = bytesUnderWay / getPieceCount(jobs) / copyAlignment * copyAlignment;
    return static_cast<int>(std::clamp<int64>(most, copyAlignment, largestPiece));
}

class CCopy {
public:
    CCopy(ISource& source, ISink& sink, int64 sizeBytes, int jobs, CProgress& progress)
        : m_source(source),
          m_sink(sink),
          m_progress(progress),
          m_reader(&source, sizeBytes, getPieceSize(jobs)),
          m_mustUnpack(!sink.takesStoredGrains(source.getStoredGrainSizeBytes())) {
        for (int i = 0; i < getPieceCount(jobs); ++i)
            m_pieces.push_back(std::make_unique<CPiece>(getPieceSize(jobs)));
    }

    void runAlone() {
        CPiece& piece = *m_pieces.front();
        while (m_reader.readNext(piece)) {
            prepare(piece);
            write(piece);
        }
    }

    void runWith(int jobs) {
        const tbb::global_control control(tbb::global_control::max_allowed_parallelism,
                                          static_cast<std::size_t>(jobs));
        tbb::task_arena arena(jobs);
        arena.execute([this] { runPipeline(); });
    }

    int64 finish() {
        const int64 size = m_reader.getSizeBytes();
        const int64 position = m_reader.getPosition();
        if (position < size)
            writeZeros(position, size - position);
        m_progress.advanceTo(size);
        m_sink.finish(size);
        return m_reader.getSourceBytes();
    }

private:
    void runPipeline() {
        using tbb::filter_mode;
        // Pieces end in the order in which they begin, and no more are under way than there are, so that the
        // one that is next in the row is free.
        std::size_t next = 0;
        const auto read = tbb::make_filter<void, CPiece*>(filter_mode::serial_in_order,
                                                          [this, &next](tbb::flow_control& flow) -> CPiece* {
                                                              CPiece* const piece = m_pieces[next].get();
                                                              if (!m_reader.readNext(*piece)) {
                                                                  flow.stop();
                                                                  return nullptr;
                                                              }
                                                              next = (next + 1) % m_pieces.size();
                                                              return piece;
                                                          });
        const auto work = tbb::make_filter<CPiece*, CPiece*>(filter_mode::parallel, [this](CPiece* piece) {
            prepare(*piece);
            return piece;
        });
        const auto write =
            tbb::make_filter<CPiece*, void>(filter_mode::serial_in_order, [this](CPiece* piece) {
                try {
                    this->write(*piece);
                } catch (...) {
                    stopWaitingForInput(); // the reader may be doing so
                    throw;
                }
            });
        tbb::parallel_pipeline(m_pieces.size(), read & work & write);
    }

    void prepare(CPiece& piece) noexcept {
        if (!piece.isData() || piece.hasError())
            return;
        try {
            m_source.unpack(piece, m_mustUnpack);
            m_sink.prepare(piece);
        } catch (...) {
            piece.setError(std::current_exception());
        }
    }

    void write(CPiece& piece) {
        piece.throwError();
        throwIfInterrupted();
        if (piece.isData())
            m_sink.write(piece);
        else
            writeZeros(piece.getPosition(), piece.getSizeBytes());
        m_progress.advanceTo(piece.getPosition() + piece.getSizeBytes());
    }

    /// In a child zeros may have to be stored.
    void writeZeros(int64 position, int64 sizeBytes) {
        constexpr int64 most = int64{64} << 20;
        const int64 end = position + sizeBytes;
        while (position < end) {
            throwIfInterrupted();
            const int64 piece = std::min(end - position, most);
            m_sink.writeZeros(position, piece);
            position += piece;
            m_progress.advanceTo(position);
        }
    }

    ISource& m_source;
    ISink& m_sink;
    CProgress& m_progress;
    CPieceReader m_reader;
    bool m_mustUnpack;
    std::vector<std::unique_ptr<CPiece>> m_pieces;
};

} // namespace

int64 copy(ISource& source, ISink& sink, int64 sizeBytes, int jobs, CProgress& progress) {
    CCopy copying(source, sink, sizeBytes, jobs, progress);
    if (jobs == 1)
        copying.runAlone();
    else
        copying.runWith(jobs);
    return copying.finish();
}

} // namespace tessel::cli
