/*
 * Which types may lie in memory that processes of both widths share.
 *
 *   - numbers of <cstdint>, bool, char, std::byte, char16_t, char32_t, float, double, and enumerations of
 * such
 *   - std::atomic of them, where it needs no lock
 *   - arrays and std::array of what may lie there
 *   - structures whose members are listed with QVOPL_SHAREABLE
 *   - what SharedTraits is specialised for
 *
 * Everything else is refused by the compiler: pointers and references, long, long double, and structures that
 * nobody has listed. In a 64-bit program long and std::int64_t are one type, and in a 32-bit program
 * std::size_t is std::uint32_t. The size that QVOPL_SHAREABLE states is what finds those: compile for both
 * widths.
 */
#ifndef QVOPL_SHARED_LAYOUT_HPP
#define QVOPL_SHARED_LAYOUT_HPP

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace qvopl {

/**
 * The opt-in for a type whose members cannot be listed, as one of another library: a specialisation with
 *
 *   static constexpr std::size_t kSize       its bytes, the same in both widths
 *   static constexpr std::size_t kAlignment  that of its member with the largest, in a 64-bit program
 *
 * vouches for it. Only the size is checked.
 */
template <typename T, typename = void>
struct SharedTraits {};

namespace detail {

// What a structure's list of members says of it; found by the structure's own namespace.
struct SharedLayout {
  std::size_t size;
  std::size_t alignment;
};

template <typename T, typename... Types>
inline constexpr bool kIsOneOf = (std::is_same_v<T, Types> || ...);

// The same size in both widths. Wide characters are left out: their size is a compiler's option.
template <typename T>
inline constexpr bool kIsFixedNumber =
    kIsOneOf<T, bool, char, signed char, unsigned char, char16_t, char32_t, short, unsigned short, int,
             unsigned int, long long, unsigned long long, std::int64_t, std::uint64_t, float, double>;

template <typename T, typename = void>
inline constexpr bool kIsFixedEnum = false;
template <typename T>
inline constexpr bool kIsFixedEnum<T, std::enable_if_t<std::is_enum_v<T>>> =
    kIsFixedNumber<std::underlying_type_t<T>>;

template <typename T, typename = void>
inline constexpr bool kIsListed = false;
template <typename T>
inline constexpr bool kIsListed<T, std::void_t<decltype(QvoplSharedLayout(static_cast<const T*>(nullptr)))>> =
    true;

template <typename T, typename = void>
inline constexpr bool kHasTraits = false;
template <typename T>
inline constexpr bool
    kHasTraits<T, std::void_t<decltype(SharedTraits<T>::kSize), decltype(SharedTraits<T>::kAlignment)>> =
        true;

}  // namespace detail

/** Numbers and enumerations. */
template <typename T>
struct SharedTraits<T, std::enable_if_t<detail::kIsFixedNumber<T> || detail::kIsFixedEnum<T>>> {
  static constexpr std::size_t kSize = sizeof(T);      /**< bytes */
  static constexpr std::size_t kAlignment = sizeof(T); /**< the larger one of both widths */
};

/** Atomic numbers, where the processor does without a lock, which would be each process's own. */
template <typename T>
struct SharedTraits<std::atomic<T>, std::enable_if_t<detail::kIsFixedNumber<T> || detail::kIsFixedEnum<T>>> {
  static_assert(std::atomic<T>::is_always_lock_free && sizeof(std::atomic<T>) == sizeof(T),
                "qvopl: this atomic needs a lock, which processes would not share");
  static constexpr std::size_t kSize = sizeof(T);      /**< bytes */
  static constexpr std::size_t kAlignment = sizeof(T); /**< the same in both widths */
};

/** Arrays. */
template <typename T, std::size_t kCount>
struct SharedTraits<T[kCount], std::enable_if_t<detail::kHasTraits<T>>> {
  static constexpr std::size_t kSize = kCount * SharedTraits<T>::kSize;  /**< bytes */
  static constexpr std::size_t kAlignment = SharedTraits<T>::kAlignment; /**< that of an element */
};

/** Arrays of the standard library. */
template <typename T, std::size_t kCount>
struct SharedTraits<std::array<T, kCount>, std::enable_if_t<(kCount > 0) && detail::kHasTraits<T>>> {
  static constexpr std::size_t kSize = kCount * SharedTraits<T>::kSize;  /**< bytes */
  static constexpr std::size_t kAlignment = SharedTraits<T>::kAlignment; /**< that of an element */
};

/** Structures whose members are listed with QVOPL_SHAREABLE. */
template <typename T>
struct SharedTraits<T, std::enable_if_t<detail::kIsListed<T>>> {
  static constexpr detail::SharedLayout kLayout =
      QvoplSharedLayout(static_cast<const T*>(nullptr));       /**< both */
  static constexpr std::size_t kSize = kLayout.size;           /**< bytes */
  static constexpr std::size_t kAlignment = kLayout.alignment; /**< that of the member with the largest */
};

/** Whether a type may lie in shared memory. */
template <typename T>
inline constexpr bool kIsShareable = detail::kHasTraits<std::remove_cv_t<T>>;

namespace detail {

// Says in words why a type is refused: the first assertion that fails is the reason.
template <typename T>
struct RequireShareable {
  static constexpr bool kIsPointer = std::is_pointer_v<T> || std::is_member_pointer_v<T> ||
                                     std::is_reference_v<T> || std::is_null_pointer_v<T>;
  static constexpr bool kIsNumber = std::is_arithmetic_v<T> || std::is_enum_v<T>;
  static_assert(kIsShareable<T> || !kIsPointer,
                "qvopl: a pointer means nothing in another process: keep an offset or an index instead");
  static_assert(kIsShareable<T> || !kIsNumber,
                "qvopl: this type has another size in the other width: use one of <cstdint>");
  static_assert(kIsShareable<T> || kIsPointer || kIsNumber,
                "qvopl: list the members of this type with QVOPL_SHAREABLE, or specialise "
                "qvopl::SharedTraits for it");
  static constexpr bool kHolds = kIsShareable<T>;
};

// The same, and that memory of the library holds it: blocks are aligned to 8 bytes.
template <typename T, bool kHolds = RequireShareable<T>::kHolds>
struct RequireBlock {
  static constexpr bool kIsBlock = false;
};
template <typename T>
struct RequireBlock<T, true> {
  using Traits = SharedTraits<std::remove_cv_t<T>>;
  static_assert(sizeof(T) == Traits::kSize, "qvopl: the type's size differs from what SharedTraits says");
  static_assert(alignof(T) <= 8, "qvopl: shared memory is aligned to 8 bytes, this type to more");
  static constexpr bool kIsBlock = true;
};

struct SharedMember {
  std::size_t offset;
  std::size_t size;
  std::size_t alignment;
};

template <typename Member, bool kHolds = RequireShareable<Member>::kHolds>
struct SharedMemberOf {
  static constexpr SharedMember At(std::size_t offset) noexcept {
    using Traits = SharedTraits<std::remove_cv_t<Member>>;
    return {offset, Traits::kSize, Traits::kAlignment};
  }
};
template <typename Member>
struct SharedMemberOf<Member, false> {
  static constexpr SharedMember At(std::size_t offset) noexcept { return {offset, sizeof(Member), 1}; }
};

// Members that follow each other without a gap, each at a multiple of its larger alignment, are placed alike
// by the compilers of both widths: there is nothing for either to fill up.
template <std::size_t kCount>
constexpr bool HasNoGaps(const SharedMember (&members)[kCount]) noexcept {
  std::size_t end = 0;
  for (const SharedMember& member : members) {
    if (member.offset != end) return false;
    end = member.offset + member.size;
  }
  return true;
}

template <std::size_t kCount>
constexpr bool IsAligned(const SharedMember (&members)[kCount]) noexcept {
  for (const SharedMember& member : members)
    if (member.offset % member.alignment != 0) return false;
  return true;
}

template <std::size_t kCount>
constexpr SharedLayout LayoutOf(const SharedMember (&members)[kCount]) noexcept {
  SharedLayout layout{members[kCount - 1].offset + members[kCount - 1].size, 1};
  for (const SharedMember& member : members)
    if (member.alignment > layout.alignment) layout.alignment = member.alignment;
  return layout;
}

}  // namespace detail

}  // namespace qvopl

/**
 * Lists all members of a structure in their order, and states its size in bytes, so that it may lie in shared
 * memory; stands behind the structure, in its namespace. Up to 32 members; more go into structures of their
 * own.
 *
 *   struct Visits {
 *     std::uint32_t count;
 *     std::uint32_t reserved;
 *     std::uint64_t widths;
 *   };
 *   QVOPL_SHAREABLE(Visits, 16, count, reserved, widths);
 *
 * The compiler refuses a structure that either width would lay out in another way than the other: one with a
 * gap between its members or behind the last, or with an 8-byte member at an offset that is no multiple of 8.
 * Write reserved members where there would be gaps.
 *
 * A new block is filled with zeros: what initialisers of the members say does not count.
 */
#define QVOPL_SHAREABLE(Type, sizeBytes, ...)                                                           \
  [[maybe_unused]] constexpr ::qvopl::detail::SharedLayout QvoplSharedLayout(const Type*) noexcept {    \
    static_assert(std::is_standard_layout_v<Type> && std::is_trivially_destructible_v<Type>,            \
                  "qvopl: " #Type " is no plain structure");                                            \
    constexpr ::qvopl::detail::SharedMember kMembers[] = {                                              \
        QVOPL_DETAIL_EACH(QVOPL_DETAIL_MEMBER, Type, __VA_ARGS__)};                                     \
    static_assert(::qvopl::detail::HasNoGaps(kMembers),                                                 \
                  "qvopl: " #Type " has a gap, or members that are not listed or not in their order");  \
    static_assert(::qvopl::detail::IsAligned(kMembers),                                                 \
                  "qvopl: a member of " #Type " lies at an offset that is no multiple of its size");    \
    constexpr ::qvopl::detail::SharedLayout kLayout = ::qvopl::detail::LayoutOf(kMembers);              \
    static_assert(kLayout.size % kLayout.alignment == 0 && kLayout.size == sizeof(Type),                \
                  "qvopl: " #Type " has a gap behind its last member, or members that are not listed"); \
    static_assert(sizeof(Type) == (sizeBytes), "qvopl: " #Type " has another size than stated");        \
    return kLayout;                                                                                     \
  }                                                                                                     \
  static_assert(QvoplSharedLayout(static_cast<const Type*>(nullptr)).size != 0, "")

#define QVOPL_DETAIL_MEMBER(Type, member) \
  ::qvopl::detail::SharedMemberOf<decltype(Type::member)>::At(offsetof(Type, member))

// Calls a macro with the type and each of the names.
// clang-format off
#define QVOPL_DETAIL_EACH(macro, Type, ...) \
  QVOPL_DETAIL_EACH_OF(__VA_ARGS__, 32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, \
                       16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_OF(                                                                      \
    _1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, _12, _13, _14, _15, _16, \
    _17, _18, _19, _20, _21, _22, _23, _24, _25, _26, _27, _28, _29, _30, _31, _32, count, ...) \
  QVOPL_DETAIL_EACH_##count
#define QVOPL_DETAIL_EACH_1(macro, Type, name) macro(Type, name)
#define QVOPL_DETAIL_EACH_2(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_1(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_3(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_2(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_4(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_3(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_5(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_4(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_6(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_5(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_7(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_6(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_8(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_7(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_9(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_8(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_10(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_9(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_11(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_10(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_12(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_11(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_13(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_12(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_14(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_13(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_15(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_14(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_16(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_15(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_17(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_16(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_18(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_17(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_19(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_18(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_20(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_19(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_21(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_20(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_22(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_21(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_23(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_22(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_24(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_23(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_25(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_24(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_26(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_25(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_27(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_26(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_28(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_27(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_29(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_28(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_30(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_29(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_31(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_30(macro, Type, __VA_ARGS__)
#define QVOPL_DETAIL_EACH_32(macro, Type, name, ...) macro(Type, name), QVOPL_DETAIL_EACH_31(macro, Type, __VA_ARGS__)
// clang-format on

#endif
