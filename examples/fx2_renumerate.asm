; A smallest firmware for the Cypress EZ-USB FX2, for SDCC's assembler: leaves the bus and comes
; back, as firmware does that brings descriptors of its own.  Its code lies in the upper memory, so
; that loading it takes the way through the loader.  fx2_renumerate.hex is made of it by
;
;     sdas8051 -o fx2_renumerate.asm && sdld -i fx2_renumerate.hex fx2_renumerate.rel

        .module fx2_renumerate

USBCS           = 0xE680
DISCON_RENUM    = 0x0A          ; off the bus; requests go to this program
RENUM           = 0x02          ; on the bus again

        .area   VECTOR (ABS)
        .org    0x0000
        ljmp    start

        .area   CODE_HIGH (ABS)
        .org    0x3000
start:
        mov     dptr, #USBCS
        mov     a, #DISCON_RENUM
        movx    @dptr, a
        mov     r6, #0                  ; 65,536 rounds: about 45 ms at 48 MHz
        mov     r7, #0
wait:
        djnz    r7, wait
        djnz    r6, wait
        mov     a, #RENUM
        movx    @dptr, a
stay:
        sjmp    stay
