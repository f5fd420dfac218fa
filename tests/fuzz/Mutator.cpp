// The fuzzer's own changes hardly ever lead to inputs of a size where a recursion runs out of stack or a loop
// within a loop out of time. These two do in one step, now and then.

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

using Random = std::minstd_rand;

std::size_t Below(Random& random, std::size_t limit)
{
    return limit == 0 ? 0 : random() % limit;
}

std::string Times(const std::string& part, std::size_t count)
{
    std::string all;
    for (std::size_t i = 0; i < count; ++i) {
        all += part;
    }
    return all;
}

/// 2 to 65,536 times, as far as there is room.
std::size_t CountFor(Random& random, std::size_t size, std::size_t room)
{
    constexpr std::size_t kExponents = 16;
    const std::size_t wanted = std::size_t{2} << Below(random, kExponents);
    return std::min(wanted, room / std::max<std::size_t>(size, 1));
}

/// Repeats some bytes where they stand.
void Repeat(std::string& input, Random& random, std::size_t room)
{
    constexpr std::size_t kLongest = 64;
    const std::size_t begin = Below(random, input.size());
    const std::string part = input.substr(begin, 1 + Below(random, kLongest));
    input.insert(begin, Times(part, CountFor(random, part.size(), room)));
}

/// Repeats a tag and the one that closes it, so that the elements are nested.
void Nest(std::string& input, Random& random, std::size_t room)
{
    const std::size_t open = input.find('<', Below(random, input.size()));
    const std::size_t openEnd = input.find('>', open);
    if (open == std::string::npos || openEnd == std::string::npos) {
        return;
    }
    const std::string tag = input.substr(open, openEnd + 1 - open);
    const std::string closing = "</" + tag.substr(1, tag.find_first_of(" >") - 1) + ">";
    const std::size_t close = input.find(closing, openEnd);
    if (close == std::string::npos) {
        return;
    }
    const std::size_t count = CountFor(random, tag.size() + closing.size(), room);
    input.insert(close, Times(closing, count));
    input.insert(open, Times(tag, count));
}

} // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned seed)
{
    constexpr std::size_t kChoices = 64;
    constexpr std::size_t kNestChoices = 6; // the larger part, since it is only done where there are tags
    Random random(seed);
    const std::size_t choice = Below(random, kChoices);
    if (size == 0 || choice > kNestChoices) {
        return LLVMFuzzerMutate(data, size, maxSize);
    }
    std::string input(data, data + size);
    (choice < kNestChoices ? Nest : Repeat)(input, random, maxSize - size);
    std::copy(input.begin(), input.end(), data);
    return input.size();
}
