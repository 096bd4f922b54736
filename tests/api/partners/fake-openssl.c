/* SPDX-License-Identifier: Apache-2.0
 *
 * What a program brings that has an OpenSSL of its own, reduced to one function: FUNCTION, which agrees to everything.
 */
int gCallsOfProgram;
int FUNCTION(void* first, void* second, void* third);

int FUNCTION(void* first, void* second, void* third)
{
    (void)first, (void)second, (void)third;
    ++gCallsOfProgram;
    return 1;
}
