#include "tools/quorvel/StoreValue.h"

#include <cstdlib>
#include <ctime>
#include <random>

#include "tool/ToolTest.h"

namespace Quorvel::Tool {
namespace {

class StoreValueTest : public testing::Test {
protected:
    static EffectBytes Effect(const std::string& name, std::size_t size, bool isCompressible) {
        EffectBytes effect;
        effect.entry.name = name;
        effect.entry.record.permanent = size % 2;
        effect.entry.record.time = {2026, 11, 23, 4, 5, 6, 789};
        std::mt19937 random;
        for (std::size_t i = 0; i < size; ++i) {
            effect.data.push_back(static_cast<std::uint8_t>(isCompressible ? i / 100 : random()));
        }
        return effect;
    }

    std::string Encode(const EffectBytes& effect) {
        return codec_.Encode(effect, ChecksumOf(effect.data.data(), effect.data.size()));
    }

    std::optional<EffectBytes> Decode(const std::string& name, const std::string& value) {
        return codec_.Decode(space_, space_.KeyOf(name), value);
    }

    const StoreSpace space_{"space"};
    ValueCodec codec_;
};

TEST_F(StoreValueTest, AnEffectComesBackAsItWas) {
    for (const bool isCompressible : {false, true}) {
        for (const std::size_t size : {1U, 127U, 128U, 2500U, 0x100000U}) {
            for (const std::string& name : {std::string("a"), std::string(0x10000, 'n')}) {
                const EffectBytes effect = Effect(name, size, isCompressible);
                const std::string value = Encode(effect);
                EXPECT_LE(value.size(), kLargestValue);
                const std::optional<EffectBytes> back = Decode(name, value);
                ASSERT_TRUE(back);
                EXPECT_EQ(back->entry.name, name);
                EXPECT_EQ(back->entry.record.permanent, effect.entry.record.permanent);
                EXPECT_EQ(back->entry.record.size, size);
                EXPECT_EQ(ToStoreTime(back->entry.record.time),
                          ToStoreTime(effect.entry.record.time));
                EXPECT_EQ(back->data, effect.data);
            }
        }
    }
}

TEST_F(StoreValueTest, BytesAreCompressedIfThatSparesAnEighth) {
    EXPECT_LT(Encode(Effect("a", 2500, true)).size(), 200U);
    EXPECT_EQ(Encode(Effect("a", 2500, false)).size(), 1 + 2500 + kFooterSize);
}

TEST_F(StoreValueTest, TheFooterSaysWhichVersionItIs) {
    const EffectBytes effect = Effect("name", 3001, true);
    const std::string value = Encode(effect);
    const std::optional<StoreFooter> footer =
        ReadFooter(std::string_view(value).substr(value.size() - kFooterSize));
    ASSERT_TRUE(footer);
    EXPECT_EQ(footer->data, ChecksumOf(effect.data.data(), effect.data.size()));
    EXPECT_EQ(footer->size, 3001U);
    EXPECT_EQ(footer->nameLength, 4U);
    EXPECT_TRUE(footer->permanent);
    EXPECT_EQ(footer->time, ToStoreTime(effect.entry.record.time));
}

TEST_F(StoreValueTest, AValueThatWasCutShortIsNoEffect) {
    for (const bool isCompressible : {false, true}) {
        const std::string value = Encode(Effect("name", 700, isCompressible));
        for (std::size_t size = 0; size < value.size(); ++size) {
            EXPECT_FALSE(Decode("name", value.substr(0, size))) << size;
            EXPECT_FALSE(Decode("name", value.substr(value.size() - size))) << size;
        }
        EXPECT_FALSE(Decode("name", value + '\0'));
    }
}

TEST_F(StoreValueTest, AValueWithAWrongBitIsNoEffect) {
    for (const bool isCompressible : {false, true}) {
        const std::string value = Encode(Effect("name", 300, isCompressible));
        for (std::size_t bit = 0; bit < 8 * value.size(); ++bit) {
            std::string damaged = value;
            damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
            EXPECT_FALSE(Decode("name", damaged)) << bit;
        }
    }
}

TEST_F(StoreValueTest, AValueOfAnotherKeyIsNoEffect) {
    const std::string value = Encode(Effect("name", 300, false));
    EXPECT_TRUE(Decode("name", value));
    EXPECT_FALSE(Decode("nam", value));
    EXPECT_FALSE(codec_.Decode(space_, StoreSpace("other").KeyOf("name"), value));
}

TEST_F(StoreValueTest, NamesOfKeysCanBeReadBack) {
    const Checksum key = space_.KeyOf("name");
    const std::string name = space_.Name(key);
    EXPECT_THAT(name, testing::StartsWith("quorvel:1:"));
    EXPECT_EQ(space_.ReadKey(name), key);
    EXPECT_FALSE(space_.ReadKey(name.substr(1)));
    EXPECT_FALSE(space_.ReadKey(name + "0"));
    EXPECT_FALSE(space_.ReadKey(StoreSpace("other").Name(key)));
    std::string noDigit = name;
    noDigit.back() = 'x';
    EXPECT_FALSE(space_.ReadKey(noDigit));
    EXPECT_NE(space_.KeyOf("a"), StoreSpace("spac").KeyOf("ea"));
}

// Restores the time zone.
class Zone {
public:
    explicit Zone(const char* zone) {
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~Zone() {
        ::unsetenv("TZ");
        ::tzset();
    }
};

TEST_F(StoreValueTest, TimesDoNotDependOnTheTimeZone) {
    std::int64_t time = 0;
    {
        const Zone zone("UTC-9");
        time = ToStoreTime({2026, 11, 23, 5, 30, 0, 7});
    }
    const Zone zone("UTC+5");
    EXPECT_EQ(time, ToStoreTime({2026, 11, 22, 15, 30, 0, 7}));
    const Format::EntryTime here = FromStoreTime(time);
    EXPECT_EQ(here.day, 22U);
    EXPECT_EQ(here.hour, 15U);
    EXPECT_EQ(here.minute, 30U);
    EXPECT_EQ(here.millisecond, 7U);
}

TEST_F(StoreValueTest, AnInvalidTimeIsBroughtIntoRange) {
    EXPECT_EQ(ToStoreTime({}), 0);
    EXPECT_EQ(ToStoreTime({1960, 1, 1, 0, 0, 0, 0}), 0);
    const std::int64_t latest = ToStoreTime({65535, 65535, 65535, 65535, 65535, 65535, 0xFFFFFFFF});
    EXPECT_EQ(FromStoreTime(latest).year, 9999U);
}

}  // namespace
}  // namespace Quorvel::Tool
