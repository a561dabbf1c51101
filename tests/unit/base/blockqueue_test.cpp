#include "base/blockqueue.h"

#include <deque>
#include <random>
#include <string>

#include <gtest/gtest.h>

namespace orx {

// Puts in and takes out at random, beside a list of serial numbers that has the same done.
struct RandomQueue {
    std::mt19937 random{7};
    BlockQueue queue;
    int64_t nTotal = 0;
    std::deque<uint32_t> expected;
    uint32_t nNext = 0;

    uint32_t Below(size_t n) { return static_cast<uint32_t>(random() % n); }
    BlockRef Make()
    {
        const uint32_t kinds[] = {0, DB_KEY, DB_QUESTION, DB_MEDIA, DB_MEDIA | DB_VIDEO, DB_MEDIA | DB_VIDEO | DB_KEY};
        std::string text(Below(20) + 4, 'x');
        DataBlock *pBlock = MakeDataBlock2(text.data(), text.size(), kinds[Below(std::size(kinds))]);
        pBlock->nSerial = nNext++;
        return {pBlock, 0, 0, static_cast<uint8_t>(Below(2) * 4)};
    }
    void Step()
    {
        uint32_t nAt = Below(expected.size() + 1);
        switch (expected.size() > 100 ? 2 + Below(3) : Below(5)) {
            case 0:
                expected.push_back(nNext);
                QueueAppend(&queue, Make());
                break;
            case 1:
                expected.insert(expected.begin() + nAt, nNext);
                QueueInsert(&queue, nAt, Make());
                break;
            case 2:
                expected.erase(expected.begin(), expected.begin() + nAt % 8 * (nAt % 8 <= expected.size()));
                QueueTake(&queue, nAt % 8 * (nAt % 8 <= queue.nItems));
                break;
            case 3:
                if (nAt < expected.size()) {
                    expected.erase(expected.begin() + nAt);
                    QueueRemove(&queue, nAt);
                }
                break;
            default:
                std::erase_if(expected, [](uint32_t n) { return n % 7 == 0; });
                QueueDropIf(&queue, 0, kQueueEnd, [](const BlockRef *p) { return p->pBlock->nSerial % 7 == 0; });
        }
    }
    void Compare() const
    {
        BlockSum sum;
        ASSERT_EQ(expected.size(), queue.nItems);
        for (uint32_t i = 0; i < queue.nItems; i++) {
            const BlockRef *p = QueueAt(&queue, i);
            ASSERT_EQ(expected[i], p->pBlock->nSerial);
            BlockCount(&sum, RefFlags(p), RefBytes(p), RefOwnBytes(p), 1);
        }
        EXPECT_EQ(sum.nBytes, queue.sum.nBytes);
        EXPECT_EQ(sum.nOtherBytes, queue.sum.nOtherBytes);
        EXPECT_EQ(sum.nOthers, queue.sum.nOthers);
        EXPECT_EQ(sum.nKeys, queue.sum.nKeys);
        EXPECT_EQ(sum.nTotalled, nTotal);
    }
};

TEST(BlockQueue, IsAListInARing)
{
    RandomQueue test;
    test.queue.sum.pTotal = &test.nTotal;
    for (int i = 0; i < 20000 && !::testing::Test::HasFatalFailure(); i++) {
        test.Step();
        if (i % 20 == 0)
            test.Compare();
    }
    QueueEmpty(&test.queue);
    EXPECT_EQ(0, test.nTotal);
}

// Three packets of a chunk that a queue waits for. While they are cached the cache counts the chunk; then it is left to
// the queue, until the last of them has gone. One that was copied out keeps its own bytes only.
TEST(BlockQueue, KeepsTheBytesOfPackets)
{
    for (int bCopied : {0, 1}) {
        List cache;
        BlockSum held;
        BlockQueue queue;
        BlockListInit(&cache, &held);
        Chunk *pChunk = ChunkNew(1000);
        memcpy(ChunkBytes(pChunk), "abcabcabc", 9);
        for (uint32_t nAt : {0U, 3U, 6U}) {
            DataBlock *pBlock = MakeChunkBlock(pChunk, nAt, 3, DB_MEDIA | DB_VIDEO);
            BlockListAppend(&cache, pBlock);
            QueueAppend(&queue, {BlockHold(pBlock)});
        }
        ChunkLeave(pChunk);
        EXPECT_EQ(3 * int64_t{kBlockOverhead} + 1000, held.nBytes);
        EXPECT_EQ(0, BytesLeft());
        if (bCopied)
            BlockListCopyOut(&cache, QueueAt(&queue, 1)->pBlock);
        ListEmpty(&cache);
        EXPECT_EQ(0, held.nBytes);
        EXPECT_EQ(1000 + bCopied * (int64_t{kBlockOverhead} + 3), BytesLeft());
        for (uint32_t nLeft = 3; nLeft > 0; nLeft--) {
            EXPECT_EQ("abc", std::string(reinterpret_cast<const char *>(RefData(QueueFirst(&queue))), 3));
            EXPECT_LT(0, BytesLeft()) << nLeft;
            EXPECT_EQ(1, nLeft > 1 || QueueOwn(&queue, 0));
            EXPECT_EQ(nLeft > 1, BytesLeft() > 0) << "one that is its own keeps nothing of others";
            QueueTake(&queue, 1);
        }
        QueueEmpty(&queue);
    }
}

}  // namespace orx
