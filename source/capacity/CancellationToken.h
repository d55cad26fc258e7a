#pragma once

#include <atomic>

#include <QtGlobal>

class CancellationSource;

/// Says whether work is still wanted. Once cancelled, it stays so.
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

/// Hands out tokens and cancels all of them at once; tokens that it hands out later are valid
/// again. Must outlive its tokens. Safe on any thread.
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
