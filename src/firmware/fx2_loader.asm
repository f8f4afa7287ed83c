; The library runs this program on a bare Cypress EZ-USB FX2 to write the memory from 0x3000 on.
; It is written for SDCC's assembler; scripts/fx2-loader assembles it into fx2_loader_image.cpp.
;
; It handles vendor request 0xA3 to the device (bmRequestType 0x40, wValue: address, data stage: the
; bytes to write there), and acknowledges it once the bytes are in memory.
;
; It takes over from the chip's built-in device without a disconnect, so to the host it is still the
; device that it has enumerated.  The standard requests that a host may send to a device in use are
; answered or acknowledged.  The chip itself handles SET_ADDRESS.  All other requests are refused,
; those for descriptors, too: the host has read them before.
;
; No interrupt is used, so the interrupt vectors are free; there is no stack either.
;
; Registers: r2 type of the request; r3 bytes left in the packet; r4 low byte of the source address,
; or the answer, or how the request ends; r5 and r6 low and high byte of the number of bytes left;
; r7 configuration; r0 and r1 high and low byte of the address to write to.

        .module fx2_loader

USBIRQ         = 0xE65D     ; bit 0: set-up data have come; writing 1 clears
USBCS          = 0xE680
EP0BCH         = 0xE68A
EP0BCL         = 0xE68B     ; number of bytes; writing arms endpoint 0
EP0CS          = 0xE6A0
SETUPDAT       = 0xE6B8     ; the eight bytes of the set-up packet
EP0BUF         = 0xE740     ; 64 bytes

SUDAV          = 0x01       ; in USBIRQ
RENUM          = 0x02       ; in USBCS: requests go to this program
STALL          = 0x01       ; in EP0CS
BUSY           = 0x02
HSNAK          = 0x80       ; writing 1 acknowledges the request

        .area   VECTOR (ABS)
        .org    0x0000
        ljmp    start

        .area   LOADER (ABS)
        .org    0x0100

; Takes over.  A set-up packet that the built-in device has handled must not be handled again.
start:
        mov     dptr, #USBIRQ
        mov     a, #SUDAV
        movx    @dptr, a
        mov     dptr, #USBCS
        mov     a, #RENUM
        movx    @dptr, a
        mov     r7, #1                  ; the host has configured the built-in device

; Waits for a request.  The flag is cleared before the packet is read, so that a packet that comes
; in between sets it again.
request:
        mov     dptr, #USBIRQ
        movx    a, @dptr
        jnb     acc.0, request
        mov     a, #SUDAV
        movx    @dptr, a

        mov     dptr, #SETUPDAT
        movx    a, @dptr                ; bmRequestType
        mov     r2, a
        inc     dptr
        movx    a, @dptr                ; bRequest
        mov     r3, a
        inc     dptr
        movx    a, @dptr                ; wValue
        mov     r1, a
        inc     dptr
        movx    a, @dptr
        mov     r0, a
        inc     dptr
        inc     dptr
        inc     dptr
        movx    a, @dptr                ; wLength
        mov     r5, a
        inc     dptr
        movx    a, @dptr
        mov     r6, a

        cjne    r2, #0x40, standard
        cjne    r3, #0xA3, stallIt

; Takes packets until all bytes have come.  A new set-up packet ends the wait for data: the host has
; given up.  The bytes written so far stay.
nextPacket:
        mov     a, r5
        orl     a, r6
        jz      acknowledge
        mov     dptr, #EP0BCL
        movx    @dptr, a                ; any value lets a packet in
waitPacket:
        mov     dptr, #USBIRQ
        movx    a, @dptr
        jb      acc.0, request
        mov     dptr, #EP0CS
        movx    a, @dptr
        jb      acc.1, waitPacket
        mov     dptr, #USBIRQ    ; a set-up packet ends the wait for data, too
        movx    a, @dptr
        jb      acc.0, request

        mov     dptr, #EP0BCL
        movx    a, @dptr
        jz      nextPacket
        mov     r3, a
        mov     r4, #<EP0BUF
copy:
        mov     dph, #>EP0BUF
        mov     dpl, r4
        movx    a, @dptr
        inc     r4
        mov     dph, r0
        mov     dpl, r1
        movx    @dptr, a
        inc     dptr
        mov     r0, dph
        mov     r1, dpl
        mov     a, r5                   ; one less to come
        jnz     noBorrow
        dec     r6
noBorrow:
        dec     r5
        mov     a, r5
        orl     a, r6
        jz      acknowledge             ; also if the packet holds more than was announced
        djnz    r3, copy
        sjmp    nextPacket

; Standard requests to the device, its interface or its endpoints.
standard:
        mov     a, r2
        anl     a, #0x60
        jnz     stallIt
        mov     a, r2
        jb      acc.7, standardIn
        cjne    r3, #9, notConfiguration
        mov     a, r1                   ; SET_CONFIGURATION
        mov     r7, a
        sjmp    acknowledge
notConfiguration:
        cjne    r3, #1, notClear        ; CLEAR_FEATURE
        sjmp    acknowledge
notClear:
        cjne    r3, #3, notSet          ; SET_FEATURE
        sjmp    acknowledge
notSet:
        cjne    r3, #11, stallIt        ; SET_INTERFACE

; Ends the request by the status stage or a stall, unless another request has come meanwhile.
acknowledge:
        mov     r4, #HSNAK
finish:
        mov     dptr, #USBIRQ
        movx    a, @dptr
        jb      acc.0, again
        mov     dptr, #EP0CS
        mov     a, r4
        movx    @dptr, a
again:
        ljmp    request

stallIt:
        mov     r4, #STALL
        sjmp    finish

standardIn:
        mov     r4, #0                  ; both bytes of the answer
        cjne    r3, #0, notStatus
        mov     r3, #2                  ; GET_STATUS
        sjmp    answer
notStatus:
        cjne    r3, #10, notInterface   ; GET_INTERFACE
        mov     r3, #1
        sjmp    answer
notInterface:
        cjne    r3, #8, stallIt         ; GET_CONFIGURATION
        mov     r3, #1
        mov     a, r7
        mov     r4, a

; Sends r4 and zero: r3 bytes of them, or fewer if the host asks for fewer.
answer:
        mov     a, r6
        jnz     send
        mov     a, r5
        clr     c
        subb    a, r3
        jnc     send
        mov     a, r5
        mov     r3, a
send:
        mov     dptr, #EP0BUF
        mov     a, r4
        movx    @dptr, a
        inc     dptr
        clr     a
        movx    @dptr, a
        mov     dptr, #USBIRQ
        movx    a, @dptr
        jb      acc.0, again
        clr     a
        mov     dptr, #EP0BCH
        movx    @dptr, a
        mov     dptr, #EP0BCL
        mov     a, r3
        movx    @dptr, a
        sjmp    acknowledge

; The rest, up to 0x0403, is zero and not used by the program.
