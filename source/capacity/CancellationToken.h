#pragma once

#include <atomic>

#include <QtGlobal>

class CancellationSource;

/// Shows whether work was cancelled. A cancelled token stays cancelled.
class CancellationToken
{
public:
    bool isCancelled() const;

private:
    friend class CancellationSource;
    explicit CancellationToken(const CancellationSource& source);

    const CancellationSource* mSource;
    quint32 mGeneration;
};

/// Issues tokens and cancels all of them at once; tokens that it issues later are valid again. Must
/// outlive its tokens. Safe on any thread.
class CancellationSource
{
public:
    CancellationToken token() const { return CancellationToken(*this); }
    void cancelAll() { ++mGeneration; }

private:
    friend class CancellationToken;
    std::atomic<quint32> mGeneration{0};
};

inline CancellationToken::CancellationToken(const CancellationSource& source)
    : mSource(&source), mGeneration(source.mGeneration)
{}

inline bool CancellationToken::isCancelled() const
{
    return mSource->mGeneration.load(std::memory_order_relaxed) != mGeneration;
}
