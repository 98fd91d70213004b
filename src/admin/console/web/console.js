// console
