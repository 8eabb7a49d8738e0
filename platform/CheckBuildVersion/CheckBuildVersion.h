/* Stand-in for the controller's build-compatibility library.
 *
 * checkBuildVersion is called once by every library of the firmware when it is loaded, with the
 * interface number that library was built against. A number other than the one this library was
 * built for gives one warning line on standard error; the caller decides what to do with the
 * result (0: match, -1: mismatch).
 */
#ifndef ORVIX_PLATFORM_CHECKBUILDVERSION_H
#define ORVIX_PLATFORM_CHECKBUILDVERSION_H

#ifdef __cplusplus
extern "C" {
#endif

int checkBuildVersion(int interfaceNumber);

#ifdef __cplusplus
}
#endif

#endif
