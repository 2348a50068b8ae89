#pragma once

// Under AddressSanitizer every run of the program costs several times as much; the campaigns
// run a share of their default size there and leave the full size to the other builds.
namespace sync {
namespace test {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitizedBuild = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitizedBuild = true;
#else
constexpr bool kSanitizedBuild = false;
#endif
#else
constexpr bool kSanitizedBuild = false;
#endif

}  // namespace test
}  // namespace sync
