#include "media/MixFeed.h"

#include <utility>

namespace vexalive {

void MixFeed::putPicture(MixPicture picture) {
    const auto now = static_cast<int64_t>(Pipeline::runningTime());
    const std::lock_guard<std::mutex> lock(mMutex);
    mCame = now;
    while (!mPictures.empty() && mPictures.back().turn >= picture.turn) {
        mPictures.pop_back();  // of a connection before, or of before a jump of the publisher's clock
    }
    if (mPictures.size() == kMaxPictures) {
        mPictures.pop_front();
    }
    mPictures.push_back(std::move(picture));
}

void MixFeed::putSound(int64_t turn, const float* samples, int64_t count) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mSound.put(MixSound::positionOf(turn), samples, count);
}

bool MixFeed::pictureAt(int64_t now, MixPicture& picture) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (now - mCame > kFrozen) {
        mPictures.clear();
    }
    while (mPictures.size() > 1 && mPictures[1].turn <= now) {
        mPictures.pop_front();
    }
    if (mPictures.empty()) {
        return false;
    }
    picture = mPictures.front().share();
    return true;
}

void MixFeed::addSound(float* sum, int64_t position, int64_t count) const {
    const std::lock_guard<std::mutex> lock(mMutex);
    mSound.addTo(sum, position, count);
}

}  // namespace vexalive
